// The path of an element, for reports that point into a document.
#include <string>
#include <vector>

#include "kavrel/platform/xml.h"

namespace kavrel::xml {

std::string elementPath(const Node& node) {
  std::vector<std::string> steps;
  for (Node n = node; !n.isNull() && n.type() == NodeType::Element; n = n.parent()) {
    std::string step = n.name();
    if (auto name = n.attribute("Name")) {
      step += "[@Name='";
      for (char c : *name) step += c == '\'' ? std::string("''") : std::string(1, c);
      step += "']";
    }
    steps.push_back(std::move(step));
  }
  std::string path;
  for (auto it = steps.rbegin(); it != steps.rend(); ++it) path += "/" + *it;
  return path;
}

}  // namespace kavrel::xml
