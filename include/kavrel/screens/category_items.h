// Screen categories of a target (table Catégories, "Category" elements of
// "ds:Categories"). A category owns the screens filed under it.
//
// Ownership: a category holds its ScreenItems; each screen keeps a weak link
// back to its category, the category a weak link to its target. clear()
// drops the parent link and clears and drops the screens.
//
// Errors:
//  - dbRename: 100 "Parent not defined" without a target; 101 "Enable to
//    execute sql" when the row cannot be opened; 1 "Category not found";
//    2 "Duplicate name" (the name stays unchanged). All thrown.
//  - dbDelete: 1 "Impossible to delete the category '<name>'" while screens
//    still refer to it (thrown).
//  - dbInsert: 100 "Parent not defined" without a target; database errors
//    are thrown as they come.
//  - loadXml: a "Category" element without "Name" records error 1 "Name
//    undefined, bad category" (source "CategoryItem.loadXml") and is still
//    added by CategoryItems.loadXml, with an empty name.
//  - Reads throw the database's error (number and description).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "kavrel/collections/keyed_collection.h"
#include "kavrel/fwd.h"
#include "kavrel/platform/xml.h"

namespace kavrel {

class CategoryItem : public std::enable_shared_from_this<CategoryItem> {
 public:
  CategoryItem();
  ~CategoryItem();

  int32_t categoryId() const { return categoryId_; }
  void setCategoryId(int32_t v) { categoryId_ = v; }
  const std::string& categoryName() const { return categoryName_; }
  void setCategoryName(std::string v) { categoryName_ = std::move(v); }
  std::shared_ptr<TargetItem> parent() const { return parent_.lock(); }
  void setParent(const std::shared_ptr<TargetItem>& p) { parent_ = p; }
  // Never null on a category made by its collection or by make_shared.
  std::shared_ptr<ScreenItems> Screens() const { return Screens_; }
  void setScreens(std::shared_ptr<ScreenItems> v) { Screens_ = std::move(v); }

  void clear();
  // Fills the "Category" element `reqNode` (its "Name" and its screens).
  void createXMLnode(xml::Document& odoc, xml::Node reqNode);
  // Reads a "Category" element into this category (name and screens).
  void loadXml(xml::Document& odoc, xml::Node parNode);
  void dbRename(db::Connection& conn, const std::string& newName);
  void dbInsert(db::Connection& conn);
  // The category's row, then its screens (ScreenItems::DbInsertAll).
  void DbInsertAll(db::Connection& conn);
  void dbDelete(db::Connection& conn);

 private:
  int32_t categoryId_ = 0;
  std::string categoryName_;
  std::weak_ptr<TargetItem> parent_;
  std::shared_ptr<ScreenItems> Screens_;
};

class CategoryItems : public KeyedCollection<CategoryItem> {
 public:
  Ptr Add(int32_t categoryId, std::string categoryName, std::string_view sKey = {});
  // The first category whose name equals `name` exactly; null when none.
  Ptr ItemName(std::string_view name) const;

  // One line feed and one "Category" element per category under `parent`.
  void createXMLnode(xml::Document& odoc, xml::Node parent);
  // Adds a category per "Category" child of `parNode` (see the header note).
  void loadXml(xml::Document& odoc, xml::Node parNode, const std::shared_ptr<TargetItem>& Ptarget);
  // The target's categories in name order (rows only).
  void DbRead(db::Connection& conn, const std::shared_ptr<TargetItem>& target);
  // The same, each with its whole screen tree.
  void dbReadAll(db::Connection& conn, const std::shared_ptr<TargetItem>& target);
  // The same from a database of the older layout.
  void dbReadKVR(db::Connection& conn, const std::shared_ptr<TargetItem>& target);
  // Inserts every category with its screen tree, in collection order.
  void DbInsertAll(db::Connection& conn);

 private:
  void read(db::Connection& conn, const std::shared_ptr<TargetItem>& target, int depth);
};

}  // namespace kavrel
