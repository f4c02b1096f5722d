// What TargetItem::loadXml and the readers it calls look at in a target
// document, for documents read in pieces (xml::Document::loadPiecewise).
// Kept beside the readers (defined in target_item.cpp): a reader that starts
// to look at another child of the target element must be named here, or a
// large document read in pieces would not show it that child. A test
// compares the imports of both ways.
#pragma once

#include "kavrel/platform/xml.h"

namespace kavrel::target {

// Root "xml", its first "kvr:Target"; kept whole: the first of each child
// that TargetItem::loadXml, TargetParamItem::loadXml and isCan read
// ("Function", "Language", "Description", "DateOfficialisation", "Failures",
// "Boot", and the line descriptions "Protocol", "K", "CAN"); sections, read
// one child at a time: "Datas", "Requests" (whose "Endian" attribute is
// read too), "Devices", "ds:Categories", "AutoIdents".
const xml::PiecewiseLayout& documentLayout();

}  // namespace kavrel::target
