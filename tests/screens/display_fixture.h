// Test helper: a stored target with requests, data positions, a category and
// a screen, ready to hold displays.
//
//   kavrel::test::DisplayTarget t;                       // rows stored, objects linked
//   auto d = t.dataDisplay("Lecture 'A'", "Vitesse");    // type 3, in memory, parent set
//   auto r = t.requestDisplay("Reset", true);            // type 1 input
//   describe(*d);                                        // every stored property on one line
#pragma once

#include <string>

#include "kavrel/kavrel.h"
#include "kavrel/screens/display_items.h"
#include "kavrel/screens/screen_items.h"
#include "support/request_fixture.h"

namespace kavrel::test {

class DisplayTarget : public StoredTarget {
 public:
  DisplayTarget() {
    for (const char* name : {"Vitesse", "Régime", "Consigne"}) addData(name);
    auto read = addRequest("Lecture 'A'");
    addPosition(read, "Vitesse", 3);
    addPosition(read, "Régime", 4);
    auto write = addRequest("Ecriture");
    addPosition(write, "Consigne", 2, 0, false, true);
    auto reset = addRequest("Reset");
    reset->setLgVariable(true);
    target->Requests()->DbInsertAll(conn(), target->Address(), target->targetid());

    conn().execute("INSERT INTO Catégories ([Target Id], [Category Name]) VALUES (" + tid() + ", 'Mesures')");
    auto categories = std::make_shared<CategoryItems>();
    target->setCategories(categories);
    category = categories->Add(static_cast<int32_t>(count("SELECT max([Category Id]) FROM Catégories")), "Mesures");
    category->setParent(target);
    screen = addScreen("Moteur");
  }

  // A stored screen of the category (in memory: Screens of the category).
  std::shared_ptr<ScreenItem> addScreen(const std::string& name) {
    conn().execute("INSERT INTO Ecrans ([Target Id], [Category Id], [Screen Name]) VALUES (" + tid() + ", " +
                   std::to_string(category->categoryId()) + ", " + db::sql::quote(name) + ")");
    auto s = category->Screens()->Add(static_cast<int32_t>(count("SELECT max([Screen Id]) FROM Ecrans")), name);
    s->setParent(category);
    return s;
  }

  // A display of the screen, in memory (not stored, not in its collection).
  std::shared_ptr<DisplayItem> display(int32_t type, int32_t left = 0) {
    auto d = std::make_shared<DisplayItem>();
    d->setParent(screen);
    d->setTypeDisplay(type);
    d->setDisplayLeft(left);
    return d;
  }
  std::shared_ptr<DisplayItem> dataDisplay(const std::string& request, const std::string& data, int32_t left = 0) {
    auto d = display(3, left);
    auto link = d->DisplayDataItem();
    link->setParent(d);
    link->setDataname(data);
    link->setRequestName(request);
    link->setDataPosition(target->Requests()->ItemDataPositionName(request, data));
    return d;
  }
  std::shared_ptr<DisplayItem> requestDisplay(const std::string& request, bool input, int32_t left = 0) {
    auto d = display(1, left);
    auto link = d->DisplayExtraItem();
    link->setParent(d);
    link->setRequestName(request);
    link->setRequest(target->Requests()->ItemName(request));
    link->setParam(input);
    return d;
  }
  // A threshold of the display.
  static std::shared_ptr<RangeItem> range(const std::shared_ptr<DisplayItem>& d, double seuil, int32_t couleur,
                                          int sound = -1) {
    auto r = d->RangeItems()->Add(seuil);
    r->setParent(d);
    r->setCouleur(couleur);
    r->setSonFlag(sound >= 0);
    r->setSon(sound >= 0 ? sound : 0);
    return r;
  }
  // The screen's displays as read back from the database.
  std::shared_ptr<DisplayItems> readBack() {
    auto list = std::make_shared<DisplayItems>();
    list->DbRead(conn(), target->targetid(), screen);
    return list;
  }

  std::shared_ptr<CategoryItem> category;
  std::shared_ptr<ScreenItem> screen;
};

// Everything a display stores, on one line: type, geometry, colours, font,
// link, thresholds ("-" for a null object).
inline std::string describe(const DisplayItem& d) {
  std::string s = std::to_string(d.TypeDisplay()) + "|" + std::to_string(d.DisplayLeft()) + "," +
                  std::to_string(d.DisplayTop()) + "," + std::to_string(d.DisplayHeight()) + "," +
                  std::to_string(d.DisplayWidth()) + "," + std::to_string(d.CaptionWidth()) + "|" +
                  std::to_string(d.DisplayColor()) + "|" + d.FontName() + "," + std::to_string(d.FontSize()) + "," +
                  std::to_string(d.FontBold()) + std::to_string(d.FontItalic()) + "," +
                  std::to_string(d.FontColor()) + "|";
  if (d.TypeDisplay() == 3) {
    auto link = d.DisplayDataItem();
    s += !link ? "-" : link->requestName() + "/" + link->dataname() + (link->DataPosition() ? "" : "(unresolved)");
  } else if (d.TypeDisplay() == 1) {
    auto link = d.DisplayExtraItem();
    s += !link ? "-" : link->requestName() + (link->param() ? " input" : "") + (link->request() ? "" : "(unresolved)");
  }
  s += "|";
  if (auto ranges = d.RangeItems()) {
    for (const auto& r : *ranges)
      s += text::decimalText(r->Seuil()) + ":" + std::to_string(r->Couleur()) +
           (r->SonFlag() ? "~" + std::to_string(r->Son()) : "") + " ";
  } else {
    s += "-";
  }
  return s;
}

}  // namespace kavrel::test
