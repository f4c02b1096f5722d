// Screen categories of a target. Only the collection shell exists so far:
// the target owns one, clears it, and passes it along; the screen tree
// (categories, screens, buttons, labels, displays) is not modelled yet.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "kavrel/collections/keyed_collection.h"
#include "kavrel/fwd.h"

namespace kavrel {

class CategoryItem {
 public:
  int32_t categoryId() const { return categoryId_; }
  void setCategoryId(int32_t v) { categoryId_ = v; }
  const std::string& categoryName() const { return categoryName_; }
  void setCategoryName(std::string v) { categoryName_ = std::move(v); }
  std::shared_ptr<TargetItem> parent() const { return parent_.lock(); }
  void setParent(const std::shared_ptr<TargetItem>& p) { parent_ = p; }
  void clear() { parent_.reset(); }

 private:
  int32_t categoryId_ = 0;
  std::string categoryName_;
  std::weak_ptr<TargetItem> parent_;
};

class CategoryItems : public KeyedCollection<CategoryItem> {
 public:
  Ptr Add(int32_t categoryId, std::string categoryName, std::string_view sKey = {}) {
    return addNew(sKey, [&](CategoryItem& c) {
      c.setCategoryId(categoryId);
      c.setCategoryName(std::move(categoryName));
    });
  }
};

}  // namespace kavrel
