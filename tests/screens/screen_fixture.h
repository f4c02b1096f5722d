// A stored target with two stored requests and a screen tree built in
// memory, and a one-line description of a tree for comparisons.
#pragma once

#include <string>

#include "kavrel/kavrel.h"
#include "support/request_fixture.h"

namespace kavrel::test {

// Everything stored of a tree, in collection order: categories, screens
// (with their initial button's caption), labels, buttons and steps.
inline std::string describe(const CategoryItems& categories) {
  std::string s;
  auto size = [](float f) { return text::numberToText(static_cast<double>(f)); };
  for (const auto& c : categories) {
    s += "C " + c->categoryName() + "\n";
    for (const auto& sc : *c->Screens()) {
      auto init = sc->ButtonInit();
      s += " S " + sc->screenName() + "|" + std::to_string(sc->WindowState()) + "|" + std::to_string(sc->ScreenWidth()) +
           "|" + std::to_string(sc->ScreenHeight()) + "|" + std::to_string(sc->ScreenColor()) + "|init=" +
           (init ? init->Caption() : "-") + "\n";
      for (const auto& l : *sc->LabelItems())
        s += "  L " + l->LabelText() + "|" + std::to_string(l->LabelLeft()) + "," + std::to_string(l->LabelTop()) +
             "," + std::to_string(l->LabelHeight()) + "," + std::to_string(l->LabelWidth()) + "|" + l->FontName() +
             "|" + size(l->FontSize()) + "|" + std::to_string(l->FontBold()) + std::to_string(l->FontItalic()) + "|" +
             std::to_string(l->FontColor()) + "|" + std::to_string(l->LabelColor()) + "|" +
             std::to_string(l->Alignment()) + "\n";
      for (const auto& b : *sc->ButtonItems()) {
        s += "  B " + b->Caption() + "|" + std::to_string(b->ButtonLeft()) + "," + std::to_string(b->ButtonTop()) +
             "," + std::to_string(b->ButtonHeight()) + "," + std::to_string(b->ButtonWidth()) + "|" + b->FontName() +
             "|" + size(b->FontSize()) + "|" + std::to_string(b->FontBold()) + std::to_string(b->FontItalic()) + "|" +
             b->Message() + "|" + (b->InitButton() ? "init" : "") + "\n";
        if (b->hasScenarioItems())
          for (const auto& st : *b->ScenarioItems())
            s += "   > " + std::to_string(st->index()) + " " + (st->request() ? st->request()->requestName() : "?") +
                 " " + std::to_string(st->Delay()) + "\n";
      }
    }
  }
  return s;
}

// A stored target with the stored requests "Lecture" and "Ecriture 'rapide'".
class ScreenTarget : public StoredTarget {
 public:
  ScreenTarget() {
    for (const char* r : {"Lecture", "Ecriture 'rapide'"}) addRequest(r)->dbInsert(conn());
    target->setCategories(std::make_shared<CategoryItems>());
  }
  std::shared_ptr<CategoryItem> addCategory(const std::string& name) {
    auto c = target->Categories()->Add(0, name);
    c->setParent(target);
    return c;
  }
  static std::shared_ptr<ScreenItem> addScreen(const std::shared_ptr<CategoryItem>& c, const std::string& name) {
    auto s = c->Screens()->Add(0, name);
    s->setParent(c);
    return s;
  }
  static std::shared_ptr<LabelItem> addLabel(const std::shared_ptr<ScreenItem>& s, const std::string& text) {
    auto l = s->LabelItems()->Add(0);
    l->setParent(s);
    l->setLabelText(text);
    return l;
  }
  static std::shared_ptr<ButtonItem> addButton(const std::shared_ptr<ScreenItem>& s, const std::string& caption) {
    auto b = s->ButtonItems()->Add(-1);
    b->setParent(s);
    b->setCaption(caption);
    return b;
  }
  std::shared_ptr<ScenarioItem> addStep(const std::shared_ptr<ButtonItem>& b, const std::string& request,
                                        int32_t delay) {
    auto st = b->ScenarioItems()->Add(b->ScenarioItems()->Count());
    st->setParent(b);
    st->setRequest(target->Requests()->ItemName(request));
    st->setDelay(delay);
    return st;
  }

  // Categories "Moteur" (screens "Réglages", "Alpha") and "Carrosserie"
  // (one empty screen), added out of name order; every kind of text value,
  // quotes and Null columns included.
  void buildTree() {
    auto moteur = addCategory("Moteur");
    auto reglages = addScreen(moteur, "Réglages");
    reglages->setWindowState(2);
    reglages->setScreenWidth(800);
    reglages->setScreenHeight(640);
    reglages->setScreenColor(15790320);
    auto l1 = addLabel(reglages, "Zone d'\"essai\" é");
    l1->setLabelLeft(1);
    l1->setLabelTop(2);
    l1->setLabelHeight(3);
    l1->setLabelWidth(4);
    l1->setFontName("Arial");
    l1->setFontSize(8.25F);
    l1->setFontBold(true);
    l1->setFontColor(255);
    l1->setLabelColor(65280);
    l1->setAlignment(2);
    addLabel(reglages, "");  // stored with a Null text
    addLabel(reglages, "Avant");
    auto go = addButton(reglages, "Lancer l'essai");
    go->setButtonLeft(10);
    go->setButtonTop(20);
    go->setButtonHeight(30);
    go->setButtonWidth(40);
    go->setFontName("Tahoma");
    go->setFontSize(9.75F);
    go->setFontItalic(true);
    go->setMessage("Moteur \"chaud\" ? l'essai dure 5 s");
    addStep(go, "Ecriture 'rapide'", 500);
    addStep(go, "Lecture", 0);
    addStep(go, "Ecriture 'rapide'", 1000);
    auto init = addButton(reglages, "Départ");
    init->setInitButton(true);
    reglages->setButtonInit(init);
    init->setMessage("Contact mis");
    addStep(init, "Lecture", 250);
    addButton(reglages, "")->ScenarioItems();  // empty caption, font name, message and scenario
    auto alpha = addScreen(moteur, "Alpha");
    addButton(alpha, "Seul")->ScenarioItems();
    auto carrosserie = addCategory("Carrosserie");
    addScreen(carrosserie, "Vide");
  }
};

// What buildTree() reads back: categories and screens by name, labels by
// text, buttons by caption, steps by index; the initial button resolved.
inline const char* const kStoredTree =
    "C Carrosserie\n"
    " S Vide|0|600|400|16777215|init=-\n"
    "C Moteur\n"
    " S Alpha|0|600|400|16777215|init=-\n"
    "  B Seul|0,0,0,0|| 12|00||\n"
    " S Réglages|2|800|640|15790320|init=Départ\n"
    "  L |0,0,0,0|| 0|00|0|0|0\n"
    "  L Avant|0,0,0,0|| 0|00|0|0|0\n"
    "  L Zone d'\"essai\" é|1,2,3,4|Arial| 8.25|10|255|65280|2\n"
    "  B |0,0,0,0|| 12|00||\n"
    "  B Départ|0,0,0,0|| 12|00|Contact mis|init\n"
    "   > 0 Lecture 250\n"
    "  B Lancer l'essai|10,20,30,40|Tahoma| 9.75|01|Moteur \"chaud\" ? l'essai dure 5 s|\n"
    "   > 0 Ecriture 'rapide' 500\n"
    "   > 1 Lecture 0\n"
    "   > 2 Ecriture 'rapide' 1000\n";

}  // namespace kavrel::test
