// Scenario steps of a button: rows of Scenarios, "Send" elements.

#include "kavrel/screens/scenario_items.h"

#include <string>

#include "kavrel/error.h"
#include "kavrel/platform/db.h"
#include "kavrel/platform/host.h"
#include "kavrel/requests/request_items.h"
#include "kavrel/screens/button_items.h"
#include "screens/screen_support.h"

namespace kavrel {

using screens::num;

namespace {

constexpr const char* kLoadSource = "ScenarioItem.loadXml";

std::shared_ptr<ButtonItem> requireButton(const ScenarioItem& step) {
  auto button = step.parent();
  if (!button) raise(100, "", "Parent not defined");
  return button;
}

std::shared_ptr<TargetItem> targetOf(const std::shared_ptr<ButtonItem>& button) {
  auto screen = button ? button->parent() : nullptr;
  return screen ? screen->target() : nullptr;
}

// " WHERE [Target Id]=.. AND [Button Id]=.. AND [Index]=.." of a step.
std::string stepWhere(const ScenarioItem& step) {
  auto button = requireButton(step);
  auto target = screens::requireTarget(button->parent());
  return " WHERE [Target Id]=" + num(target->targetid()) + " AND [Button Id]=" + num(button->buttonId()) +
         " AND [Index]=" + num(step.index());
}

}  // namespace

// -------------------------------------------------------------- ScenarioItem

void ScenarioItem::clear() {
  request_.reset();
  parent_.reset();
}

void ScenarioItem::createXMLnode(xml::Document&, xml::Node sendNode) {
  sendNode.setAttribute("Delay", num(Delay_));
  sendNode.setAttribute("RequestName", request_ ? request_->requestName() : std::string("Unknown"));
}

void ScenarioItem::loadXml(xml::Document&, xml::Node sendNode) {
  std::string name;
  screens::attrText(sendNode, "RequestName", name);
  screens::attrInt(sendNode, "Delay", Delay_);
  requestName_ = name;
  if (name.empty()) {
    host().logEvent(EventType::Error, "ScenarioItem.loadXml : requestName missing ");
    recordError(1, kLoadSource, "requestName missing");
    return;
  }
  auto target = targetOf(parent());
  auto requests = target ? target->Requests() : nullptr;
  request_ = requests ? requests->ItemName(name) : nullptr;
  if (!request_) {
    host().logEvent(EventType::Error, "ScenarioItem.loadXml : request (" + name + ") missing ");
    recordError(1, kLoadSource, "request missing");
  }
}

void ScenarioItem::dbInsert(db::Connection& conn) {
  auto button = requireButton(*this);
  auto target = screens::requireTarget(button->parent());
  auto rs = conn.openUpdatable(
      "SELECT [Target Id], [Button Id], [Index], [Address], [Ecu Id], [Request Name], [LgVariable], [Delay] FROM "
      "Scenarios");
  rs->addNew();
  rs->setField("Target Id", target->targetid());
  rs->setField("Button Id", button->buttonId());
  rs->setField("Index", index_);
  rs->setField("Address", target->Address());
  rs->setField("Ecu Id", target->targetid());
  // A step read without its request still names it.
  rs->setField("Request Name", screens::textOrNull(request_ ? request_->requestName() : requestName_));
  rs->setField("LgVariable", screens::flag(request_ && request_->LgVariable()));
  rs->setField("Delay", Delay_);
  rs->update();
  rs->close();
}

void ScenarioItem::DbInsertAll(db::Connection& conn) { dbInsert(conn); }

void ScenarioItem::dbUpdate(db::Connection& conn) {
  const std::string where = stepWhere(*this);
  conn.execute("UPDATE Scenarios SET [Request Name]='" +
               db::sql::doubleQuotes(request_ ? request_->requestName() : requestName_) +
               "',[LgVariable]=" + screens::bit(request_ && request_->LgVariable()) + ", [Delay]=" + num(Delay_) +
               where);
}

void ScenarioItem::dbUpdateIndex(db::Connection& conn, int32_t newIndex) {
  conn.execute("UPDATE Scenarios SET [Index]=" + num(newIndex) + stepWhere(*this));
}

void ScenarioItem::dbDelete(db::Connection& conn) { conn.execute("DELETE * FROM Scenarios" + stepWhere(*this)); }

// ------------------------------------------------------------- ScenarioItems

ScenarioItems::Ptr ScenarioItems::Add(int32_t index, std::string_view sKey) {
  return addNew(sKey, [&](ScenarioItem& s) { s.setIndex(index); });
}

void ScenarioItems::createXMLnode(xml::Document& odoc, xml::Node buttonNode) {
  for (const auto& s : *this) {
    xml::Node send = buttonNode.appendElement("Send");
    if (s->request()) s->createXMLnode(odoc, send);
  }
}

void ScenarioItems::loadXml(xml::Document& odoc, xml::Node buttonNode, const std::shared_ptr<ButtonItem>& Pbutton) {
  screens::KeepPendingError keep;
  // Steps read from a document are numbered from 0.
  int32_t counter = 0;
  for (const auto& n : buttonNode.selectNodes("Send")) {
    clearLastError();
    auto s = std::make_shared<ScenarioItem>();
    s->setParent(Pbutton);
    trap([&] { s->loadXml(odoc, n); });
    if (lastError().pending()) continue;
    s->setIndex(counter++);
    AddData(s);
  }
}

void ScenarioItems::DbRead(db::Connection& conn, int32_t targetid, const std::shared_ptr<ButtonItem>& Pbutton) {
  if (!Pbutton) raise(100, "", "Parent not defined");
  auto rs = conn.execute(std::string("SELECT [Index], [Address], [Ecu Id], [Request Name], [Delay]") +
                         " From Scenarios" + " WHERE [Target Id]=" + num(targetid) +
                         " AND [Button Id]=" + num(Pbutton->buttonId()) + " ORDER BY [Index]");
  auto target = targetOf(Pbutton);
  for (; !rs->eof(); rs->moveNext()) detail::readScenarioRow(*rs, Pbutton, target);
  rs->close();
}

void ScenarioItems::dbUpdateAll(db::Connection& conn) {
  for (const auto& s : *this) s->dbUpdate(conn);
}

void ScenarioItems::DbInsertAll(db::Connection& conn) {
  for (const auto& s : *this) s->DbInsertAll(conn);
}

void ScenarioItems::DbDeleteScenario(db::Connection& conn, const std::shared_ptr<ScenarioItem>& scenar) {
  if (!scenar) return;
  for (int32_t i = 1; i <= Count(); ++i) {
    auto s = Item(i);
    if (s->index() == scenar->index()) {
      s->dbDelete(conn);
      Remove(i);
      return;
    }
  }
}

void ScenarioItems::DbReorder(db::Connection& conn, const std::shared_ptr<ButtonItem>& Pbutton) {
  if (!Pbutton) raise(100, "", "Parent not defined");
  auto target = screens::requireTarget(Pbutton->parent());
  auto rs = conn.openUpdatable(std::string("SELECT [Index] From Scenarios") + " WHERE [Target Id]=" +
                               num(target->targetid()) + " AND [Button Id]=" + num(Pbutton->buttonId()) +
                               " ORDER BY [Index]");
  // Moving each step down to its rank never meets an index still in use:
  // the lower ones were all renumbered already.
  int32_t counter = 1;
  for (; !rs->eof(); rs->moveNext(), ++counter) {
    if (rs->field(0).toInt32() != counter) {
      rs->setField("Index", counter);
      rs->update();
    }
  }
  rs->close();
}

namespace detail {

void readScenarioRow(db::Recordset& rs, const std::shared_ptr<ButtonItem>& button,
                     const std::shared_ptr<TargetItem>& target) {
  auto s = button->ScenarioItems()->Add(rs.field(0).toInt32());
  int32_t delay = 0;
  screens::fieldInt(rs, 4, delay);
  s->setDelay(delay);
  s->setRequestName(rs.field(3).toText());
  s->setParent(button);
  auto requests = target ? target->Requests() : nullptr;
  s->setRequest(requests ? requests->ItemName(s->requestName()) : nullptr);
}

}  // namespace detail

}  // namespace kavrel
