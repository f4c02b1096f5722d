// The steps of a button's request scenario (table Scenarios, "Send"
// elements of a "Button"): a request and the delay after it.
//
// Ownership: a button holds its ScenarioItems; a step's parent is a weak
// link; a step shares its request with the target's requests.
//
// Errors:
//  - Database operations need the chain step -> button -> screen ->
//    category -> target, else 100 "Parent not defined"; database failures
//    are thrown as they come.
//  - ScenarioItem.loadXml with an empty or unknown "RequestName" logs
//    "ScenarioItem.loadXml : requestName missing " or "ScenarioItem.loadXml :
//    request (<name>) missing " and records error 1 ("requestName missing" /
//    "request missing", source "ScenarioItem.loadXml"); ScenarioItems.loadXml
//    skips that step. Steps loaded from XML are numbered from 0; DbReorder
//    numbers the stored steps from 1 and leaves the objects alone.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "kavrel/collections/keyed_collection.h"
#include "kavrel/fwd.h"
#include "kavrel/platform/xml.h"

namespace kavrel {

class ScenarioItem : public std::enable_shared_from_this<ScenarioItem> {
 public:
  std::shared_ptr<ButtonItem> parent() const { return parent_.lock(); }
  void setParent(const std::shared_ptr<ButtonItem>& p) { parent_ = p; }
  std::shared_ptr<RequestItem> request() const { return request_; }
  void setRequest(std::shared_ptr<RequestItem> v) { request_ = std::move(v); }
  const std::string& requestName() const { return requestName_; }
  void setRequestName(std::string v) { requestName_ = std::move(v); }
  int32_t Delay() const { return Delay_; }
  void setDelay(int32_t v) { Delay_ = v; }
  int32_t index() const { return index_; }
  void setIndex(int32_t v) { index_ = v; }

  void clear();
  // Fills a "Send" element: "Delay" and "RequestName" ("Unknown" without a request).
  void createXMLnode(xml::Document& odoc, xml::Node sendNode);
  void loadXml(xml::Document& odoc, xml::Node sendNode);
  void dbInsert(db::Connection& conn);
  void DbInsertAll(db::Connection& conn);
  void dbUpdate(db::Connection& conn);
  void dbUpdateIndex(db::Connection& conn, int32_t newIndex);
  void dbDelete(db::Connection& conn);

 private:
  std::weak_ptr<ButtonItem> parent_;
  std::shared_ptr<RequestItem> request_;
  std::string requestName_;
  int32_t Delay_ = 0;
  int32_t index_ = 0;
};

class ScenarioItems : public KeyedCollection<ScenarioItem> {
 public:
  Ptr Add(int32_t index, std::string_view sKey = {});
  // One "Send" per step, appended to the button element (no line feeds
  // between them); a step without a request gives an empty "Send".
  void createXMLnode(xml::Document& odoc, xml::Node buttonNode);
  void loadXml(xml::Document& odoc, xml::Node buttonNode, const std::shared_ptr<ButtonItem>& Pbutton);
  // The button's steps in index order, each linked to the target's request of that name.
  void DbRead(db::Connection& conn, int32_t targetid, const std::shared_ptr<ButtonItem>& Pbutton);
  void dbUpdateAll(db::Connection& conn);
  void DbInsertAll(db::Connection& conn);
  // Deletes and removes the first step with the index of `scenar`; nothing when none.
  void DbDeleteScenario(db::Connection& conn, const std::shared_ptr<ScenarioItem>& scenar);
  // Renumbers the button's stored steps 1..n in their order.
  void DbReorder(db::Connection& conn, const std::shared_ptr<ButtonItem>& Pbutton);
};

}  // namespace kavrel
