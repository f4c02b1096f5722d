// Placeholder displays: the screen tree forwards to these, which do nothing yet.

#include "kavrel/screens/display_items.h"

#include "screens/screen_bulk.h"

namespace kavrel {

DisplayItems::Ptr DisplayItems::Add(int32_t id, std::string_view sKey) {
  return addNew(sKey, [&](DisplayItem& d) { d.setId(id); });
}

void DisplayItems::DbRead(db::Connection&, int32_t, const std::shared_ptr<ScreenItem>&) {}
void DisplayItems::dbReadKVR(db::Connection&, int32_t, const std::shared_ptr<ScreenItem>&) {}
void DisplayItems::dbUpdateAll(db::Connection&) {}
void DisplayItems::DbInsertAll(db::Connection&) {}
void DisplayItems::createXMLnode(xml::Document&, xml::Node) {}
void DisplayItems::loadXml(xml::Document&, xml::Node, const std::shared_ptr<ScreenItem>&) {}

void insertDisplaysBulk(ScreenItem&, int32_t, ScreenBulkSets&) {}

}  // namespace kavrel
