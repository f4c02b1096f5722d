// The SELECTs a whole-target read (TargetItem::dbReadTargetAll) runs, each
// built by one function that its reader uses too, so that the list handed
// to the connection's read-ahead is always the very texts run.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kavrel::detail {

// In the order the whole-target read runs them.
std::vector<std::string> targetReadStatements(int32_t address, int32_t targetid);

// target_item.cpp
std::string targetHeaderSql(int32_t targetid);
// target_param_item.cpp
std::string targetParamsSql(int32_t targetid);
// auto_ident_items.cpp
std::string autoIdentsSql(int32_t address, int32_t targetid);
// data_items.cpp
std::string datasWithFicheSql(int32_t address, int32_t targetid);
std::string dataListsSql(int32_t targetid);
// request_items.cpp
std::string requestsSql(int32_t address, int32_t targetid, bool olderLayout);
std::string referencePositionsSql(int32_t targetid);
std::string positionsSql(int32_t targetid);
// organe_items.cpp
std::string organesWithContextSql(int32_t address, int32_t targetid);
std::string organeDatasSql(int32_t targetid);
// category_items.cpp
std::string categoriesSql(int32_t targetid);
std::string screensOfTargetSql(int32_t targetid);
std::string labelsOfTargetSql(int32_t targetid);
std::string buttonsOfTargetSql(int32_t targetid);
std::string scenariosOfTargetSql(int32_t targetid);
// display_items.cpp (screenId -1: every screen of the target)
std::string displaysOfTargetSql(int32_t targetid, int32_t screenId);
std::string rangesOfTargetSql(int32_t targetid, int32_t screenId);
std::string dataLinksOfTargetSql(int32_t targetid, int32_t screenId);
std::string extraLinksOfTargetSql(int32_t targetid, int32_t screenId);

}  // namespace kavrel::detail
