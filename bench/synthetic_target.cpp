#include "synthetic_target.h"

#include <kavrel/kavrel.h>

#include <string>
#include <vector>

namespace kavrel::bench {

namespace {
std::string num(int i, int width) {
  std::string s = std::to_string(i);
  return std::string(s.size() < static_cast<size_t>(width) ? width - s.size() : 0, '0') + s;
}
}  // namespace

std::shared_ptr<TargetItem> buildSyntheticTarget(KavrelDatabase& session, const SyntheticSize& size,
                                                 int32_t functionAddress) {
  auto target = session.NewTarget();
  target->setName("Synthetic " + size.label);
  target->setAddress(functionAddress);
  target->setLangue("Français");
  auto params = target->Parametres();
  params->setInitMode(2);
  params->setBaudRate(10400);
  params->setComment("Synthetic target for measurements");

  auto idents = std::make_shared<AutoIdentItems>();
  for (int i = 0; i < 4; ++i)
    idents->Add(10 + i, "SUP" + std::to_string(i), "SOFT" + std::to_string(i), "V" + std::to_string(i), target);
  target->setAutoIdents(idents);

  // Data items: every third one carries a value list, the others are scaled
  // numbers or byte strings.
  auto datas = std::make_shared<DataItems>();
  target->setDatas(datas);
  int listEntriesLeft = size.listEntries;
  const int listed = size.dataItems / 3;
  const int perList = listed > 0 ? (size.listEntries + listed - 1) / listed : 0;
  for (int i = 0; i < size.dataItems; ++i) {
    auto d = datas->Add(0);
    d->setParent(target);
    d->setDataname("Data " + num(i, 6));
    d->setMnemo("D" + std::to_string(i));
    d->setDescription("Measured value number " + std::to_string(i));
    if (i % 3 == 0 && listEntriesLeft > 0) {
      d->setListe(true);
      d->setNumberBits(8);
      for (int v = 0; v < perList && listEntriesLeft > 0; ++v, --listEntriesLeft) {
        auto e = d->DataListes()->Add(v);
        e->setParent(d);
        e->setLibelle("State " + std::to_string(v) + " of data " + std::to_string(i));
        if (v % 4 == 0) e->setInfo("Information text " + std::to_string(v));
      }
    } else if (i % 3 == 1) {
      d->setNumberBits(16);
      d->setSigne(i % 2 == 0);
      d->setCoeffA(0.125);
      d->setCoeffB(-40);
      d->setUnite("°C");
      d->setDataFormat("%.1f");
    } else {
      d->setNumerique(false);
      d->setNumberBits(8 * (1 + i % 8));
      d->setAscii(i % 2 == 0);
    }
  }

  // Requests with their positions (each data placed size.positions/dataItems times).
  auto requests = std::make_shared<RequestItems>();
  target->setRequests(requests);
  const int perRequest = size.requests > 0 ? (size.positions + size.requests - 1) / size.requests : 0;
  int placed = 0;
  for (int r = 0; r < size.requests; ++r) {
    auto req = requests->Add(0);
    req->setParent(target);
    req->setRequestName("Read block " + num(r, 5));
    req->setRequestBytes(ByteFrame::fromText("21 " + text::hex(r % 256)));
    req->setReplyBytes(ByteFrame::fromText("61 " + text::hex(r % 256)));
    req->setLengthDatas(2 + perRequest);
    req->setAccesEtudes(r % 5 != 0);
    if (r % 7 == 0) req->setCommentaire("Block read " + std::to_string(r));
    for (int k = 0; k < perRequest && placed < size.positions; ++k, ++placed) {
      auto p = req->DataPositions()->Add();
      p->setParent(req);
      p->setDataname("Data " + num(placed % size.dataItems, 6));
      p->setRequestName(req->requestName());
      p->setStartOctet(3 + k);
      p->setStartBit(0);
      p->setParam(r % 10 == 9);
      p->setReference(placed < size.dataItems && k == 0);
      if (auto d = p->Data()) {
        if (!d->DataPositions()) d->setDataPositions(std::make_shared<DataPositionItems>());
        d->DataPositions()->AddData(p);
      }
    }
  }

  auto organs = std::make_shared<OrganeItems>();
  target->setOrganes(organs);
  for (int o = 0; o < size.organs; ++o) {
    auto org = organs->Add(0, "Organ " + num(o, 4), "ORG" + std::to_string(o), 1000 + o, o % 3);
    org->setParent(target);
    org->setRequestName("Read block " + num(o % size.requests, 5));
    org->setRequest(requests->ItemName(org->requestName()));
    auto dd = std::make_shared<DeviceDataItems>();
    org->setDeviceDatas(dd);
    for (int k = 0; k < 4; ++k) {
      auto item = dd->Add();
      item->setParent(org);
      item->setDataname("Data " + num((o * 4 + k) % size.dataItems, 6));
      item->setFlagPanne(k == 0);
    }
  }

  // Screens spread over the categories; labels, buttons and steps spread
  // over the screens and buttons. The first button of a screen is its
  // initial button.
  auto categories = std::make_shared<CategoryItems>();
  target->setCategories(categories);
  std::vector<std::shared_ptr<CategoryItem>> cats;
  for (int c = 0; c < size.categories; ++c) {
    auto cat = categories->Add(0, "Category " + num(c, 4));
    cat->setParent(target);
    cats.push_back(cat);
  }
  std::vector<std::shared_ptr<ScreenItem>> screens;
  for (int i = 0; i < size.screens && !cats.empty(); ++i) {
    auto cat = cats[static_cast<size_t>(i) % cats.size()];
    auto screen = cat->Screens()->Add(0, "Screen " + num(i, 5));
    screen->setParent(cat);
    screen->setScreenWidth(800);
    screen->setScreenHeight(600);
    screens.push_back(screen);
  }
  for (int i = 0; i < size.labels && !screens.empty(); ++i) {
    auto screen = screens[static_cast<size_t>(i) % screens.size()];
    auto label = screen->LabelItems()->Add(0);
    label->setParent(screen);
    label->setLabelText("Label " + std::to_string(i) + " l'\"écran\"");
    label->setLabelLeft(120);
    label->setLabelTop(20 + 300 * (i / static_cast<int>(screens.size())));
    label->setLabelHeight(300);
    label->setLabelWidth(4000);
    label->setFontName("Arial");
    label->setFontSize(8.25F);
  }
  std::vector<std::shared_ptr<ButtonItem>> buttons;
  for (int i = 0; i < size.buttons && !screens.empty(); ++i) {
    auto screen = screens[static_cast<size_t>(i) % screens.size()];
    auto button = screen->ButtonItems()->Add(-1);
    button->setParent(screen);
    button->setCaption("Button " + num(i, 6));
    button->setButtonLeft(120 + 1500 * (i / static_cast<int>(screens.size())));
    button->setButtonTop(3600);
    button->setButtonHeight(420);
    button->setButtonWidth(1400);
    button->setFontName("Arial");
    button->setFontSize(9.75F);
    button->ScenarioItems();
    if (!screen->ButtonInit()) {
      button->setInitButton(true);
      button->setMessage("Starting screen " + screen->screenName());
      screen->setButtonInit(button);
    }
    buttons.push_back(button);
  }
  for (int i = 0; i < size.steps && !buttons.empty() && size.requests > 0; ++i) {
    auto button = buttons[static_cast<size_t>(i) % buttons.size()];
    auto step = button->ScenarioItems()->Add(button->ScenarioItems()->Count());
    step->setParent(button);
    step->setRequestName("Read block " + num(i % size.requests, 5));
    step->setRequest(requests->ItemName(step->requestName()));
    step->setDelay(100 * (i % 5));
  }

  // Displays spread over the screens, of the four kinds in turn: data,
  // data input (a written position), request, request input; thresholds
  // spread over the displays, every third with a sound.
  std::vector<std::shared_ptr<DataPositionItem>> shown, written;
  for (const auto& r : *requests)
    for (const auto& p : *r->DataPositions()) (p->param() ? written : shown).push_back(p);
  std::vector<std::shared_ptr<DisplayItem>> displays;
  for (int i = 0; i < size.displays && !screens.empty() && size.requests > 0; ++i) {
    auto screen = screens[static_cast<size_t>(i) % screens.size()];
    auto d = screen->DisplayItems()->Add(0);
    d->setParent(screen);
    d->setDisplayLeft(120 + 100 * (i / static_cast<int>(screens.size())));
    d->setDisplayTop(600 + 40 * (i % 9));
    d->setCaptionWidth(1800 + i % 5);
    d->setFontBold(i % 2 == 0);
    const auto& positions = (i % 4 == 1 && !written.empty()) ? written : shown;
    if (i % 4 < 2 && !positions.empty()) {
      auto pos = positions[static_cast<size_t>(i / 4) % positions.size()];
      auto link = d->DisplayDataItem();
      link->setParent(d);
      link->setDataname(pos->dataname());
      link->setRequestName(pos->requestName());
      link->setDataPosition(pos);
    } else {
      d->setTypeDisplay(1);
      auto link = d->DisplayExtraItem();
      link->setParent(d);
      link->setRequestName("Read block " + num(i % size.requests, 5));
      link->setRequest(requests->ItemName(link->requestName()));
      link->setParam(i % 4 == 3);
    }
    displays.push_back(d);
  }
  for (int i = 0; i < size.thresholds && !displays.empty(); ++i) {
    auto d = displays[static_cast<size_t>(i) % displays.size()];
    auto range = d->RangeItems()->Add(12.5 * (i / static_cast<int>(displays.size())) - 40.25);
    range->setParent(d);
    range->setCouleur(255 << (8 * (i % 3)));
    range->setSonFlag(i % 3 == 0);
  }
  return target;
}

}  // namespace kavrel::bench
