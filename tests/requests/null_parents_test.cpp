// Every database and XML operation of the target's parts, called on elements
// that have no parent (or with a null owner argument): each gives a numbered
// error, thrown or recorded, and never dereferences the missing object.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "kavrel/kavrel.h"
#include "support/temp_db.h"

namespace kavrel {
namespace {

struct Call {
  const char* name;
  std::function<void(db::Connection&)> run;
  int32_t expected = 100;  // "Parent not defined" / "Target not defined"
};

// The number the call reported: thrown, or left pending.
int32_t reportedBy(const Call& call, db::Connection& conn) {
  clearLastError();
  try {
    call.run(conn);
  } catch (const Error& e) {
    clearLastError();
    return e.number();
  }
  const int32_t pending = lastError().number;
  clearLastError();
  return pending;
}

TEST(NullParents, EveryOperationGivesANumberedErrorInsteadOfACrash) {
  test::TempDb db;
  auto& conn = *db.connection();
  const std::shared_ptr<TargetItem> noTarget;
  const std::shared_ptr<RequestItem> noRequest;
  const std::shared_ptr<DataItem> noData;
  const std::shared_ptr<OrganeItem> noOrgane;
  auto data = [] {
    auto d = DataItems().Add(1);
    d->setDataname("Vitesse");
    return d;
  };
  auto request = [] {
    auto r = RequestItems().Add(1);
    r->setRequestName("Lecture");
    return r;
  };
  auto organe = [] { return OrganeItems().Add(1, "Pompe", "", 0, 0); };
  auto position = [] {
    auto p = DataPositionItems().Add();
    p->setDataname("Vitesse");
    return p;
  };
  xml::Document doc;
  ASSERT_TRUE(doc.loadString("<Datas><Data Name=\"Vitesse\"/></Datas>"));
  const xml::Node node = doc.documentElement();

  const std::vector<Call> calls = {
      // Collections read for a missing owner.
      {"OrganeItems::DbRead", [&](db::Connection& c) { OrganeItems().DbRead(c, noTarget); }},
      {"OrganeItems::dbReadAll", [&](db::Connection& c) { OrganeItems().dbReadAll(c, noTarget); }},
      {"RequestItems::DbRead", [&](db::Connection& c) { RequestItems().DbRead(c, noTarget); }},
      {"RequestItems::dbReadAll", [&](db::Connection& c) { RequestItems().dbReadAll(c, noTarget); }},
      {"RequestItems::dbReadKVR", [&](db::Connection& c) { RequestItems().dbReadKVR(c, noTarget); }},
      {"DataItems::DbRead", [&](db::Connection& c) { DataItems().DbRead(c, noTarget); }},
      {"DataItems::dbReadAll", [&](db::Connection& c) { DataItems().dbReadAll(c, noTarget); }},
      {"DataItems::DbReadRef", [&](db::Connection& c) { DataItems().DbReadRef(c, noTarget); }},
      {"DataItems::dbReadKVR", [&](db::Connection& c) { DataItems().dbReadKVR(c, noTarget); }},
      {"DataPositionItems::DbRead", [&](db::Connection& c) { DataPositionItems().DbRead(c, noRequest); }},
      {"DataPositionItems::dbReadKVR", [&](db::Connection& c) { DataPositionItems().dbReadKVR(c, noRequest); }},
      {"DataListeItems::DbRead", [&](db::Connection& c) { DataListeItems().DbRead(c, noData); }},
      {"DeviceDataItems::DbRead", [&](db::Connection& c) { DeviceDataItems().DbRead(c, noOrgane); }},
      {"AutoIdentItems::dbReadAll", [&](db::Connection& c) { AutoIdentItems().dbReadAll(c, noTarget); }},
      {"TargetParamItem::DbRead", [&](db::Connection& c) { TargetParamItem().DbRead(c, noTarget); }},
      {"TargetParamItem::dbReadKVR", [&](db::Connection& c) { TargetParamItem().dbReadKVR(c, noTarget); }},
      {"TargetParamItem::dbInsert", [&](db::Connection& c) { TargetParamItem().dbInsert(c); }},
      {"TargetParamItem::dbUpdate", [&](db::Connection& c) { TargetParamItem().dbUpdate(c); }},
      // Loaded from XML for a missing owner, elements simply get no parent
      // (the error comes with their first database operation).
      {"DataItems::loadXml", [&](db::Connection&) { DataItems().loadXml(doc, node, noTarget); }, 0},
      {"RequestItems::loadXml", [&](db::Connection&) { RequestItems().loadXml(doc, node, noTarget); }, 0},
      {"OrganeItems::loadXml", [&](db::Connection&) { OrganeItems().loadXml(doc, node, noTarget); }, 0},
      {"DataPositionItems::loadXml", [&](db::Connection&) { DataPositionItems().loadXml(doc, node, noRequest); }, 0},
      {"DeviceDataItems::loadXml", [&](db::Connection&) { DeviceDataItems().loadXml(doc, node, noOrgane); }, 0},
      {"AutoIdentItems::loadXml", [&](db::Connection&) { AutoIdentItems().loadXml(doc, node, noTarget); }, 0},
      // Elements without a parent. Those that work by their own id need
      // none: a delete or update of an id not stored does nothing, or
      // reports its own error (1 "Impossible to delete ...", 3021 no row).
      {"DataItem::dbInsert", [&](db::Connection& c) { data()->dbInsert(c); }},
      {"DataItem::dbUpdate", [&](db::Connection& c) { data()->dbUpdate(c); }},
      {"DataItem::DbInsertAll", [&](db::Connection& c) { data()->DbInsertAll(c); }},
      {"DataItem::dbDelete", [&](db::Connection& c) { data()->dbDelete(c); }, 1},
      {"DataItem::dbReReadAll", [&](db::Connection& c) { data()->dbReReadAll(c); }, 3021},
      {"RequestItem::dbInsert", [&](db::Connection& c) { request()->dbInsert(c); }},
      {"RequestItem::DbInsertAll", [&](db::Connection& c) { request()->DbInsertAll(c); }},
      {"RequestItem::dbUpdate", [&](db::Connection& c) { request()->dbUpdate(c); }, 0},
      {"RequestItem::dbDelete", [&](db::Connection& c) { request()->dbDelete(c); }},
      {"OrganeItem::dbInsert", [&](db::Connection& c) { organe()->dbInsert(c); }},
      {"OrganeItem::dbUpdate", [&](db::Connection& c) { organe()->dbUpdate(c); }},
      {"OrganeItem::dbDelete", [&](db::Connection& c) { organe()->dbDelete(c); }, 0},
      {"OrganeItem::dbInsertRequest",
       [&](db::Connection& c) {
         auto o = organe();
         o->setRequestName("Lecture");
         o->dbInsertRequest(c);
       }},
      {"OrganeItem::dbReadRequest", [&](db::Connection& c) { organe()->dbReadRequest(c); }},
      {"DataPositionItem::dbInsert", [&](db::Connection& c) { position()->dbInsert(c); }},
      {"DataPositionItem::dbUpdate", [&](db::Connection& c) { position()->dbUpdate(c); }},
      {"DataPositionItem::dbDelete", [&](db::Connection& c) { position()->dbDelete(c); }},
      {"DataPositionItem::dbIsReference", [&](db::Connection& c) { position()->dbIsReference(c); }},
      {"DataPositionItem::dbInsertReference", [&](db::Connection& c) { position()->dbInsertReference(c); }},
      {"DataPositionItem::dbDeleteReference", [&](db::Connection& c) { position()->dbDeleteReference(c); }},
      {"DataListeItem::dbInsert", [&](db::Connection& c) { DataListeItems().Add(1)->dbInsert(c); }},
      {"DataListeItem::dbUpdate", [&](db::Connection& c) { DataListeItems().Add(1)->dbUpdate(c); }},
      {"DataListeItem::dbDelete", [&](db::Connection& c) { DataListeItems().Add(1)->dbDelete(c); }},
      {"DeviceDataItem::dbInsert", [&](db::Connection& c) { DeviceDataItems().Add()->dbInsert(c); }},
      {"DeviceDataItem::dbUpdate", [&](db::Connection& c) { DeviceDataItems().Add()->dbUpdate(c); }},
      {"DeviceDataItem::dbDelete", [&](db::Connection& c) { DeviceDataItems().Add()->dbDelete(c); }},
      {"AutoIdentItem::dbInsert", [&](db::Connection& c) { AutoIdentItem().dbInsert(c); }},
      {"AutoIdentItem::dbDelete", [&](db::Connection& c) { AutoIdentItem().dbDelete(c); }, 1},
  };
  for (const Call& call : calls) {
    SCOPED_TRACE(call.name);
    EXPECT_EQ(reportedBy(call, conn), call.expected) << call.name;
  }
}

}  // namespace
}  // namespace kavrel
