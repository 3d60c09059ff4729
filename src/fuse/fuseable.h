// What the approximate matcher searches in a record: a list of weighted texts.
// An application entry, for instance, offers one property per match string.
#pragma once

#include <string>
#include <vector>

namespace quorvi {

// `name` holds the text to be searched itself (not a key path).
struct FuseProperty {
  std::string name;
  double weight = 1.0;

  FuseProperty() = default;
  explicit FuseProperty(std::string name, double weight = 1.0) : name(std::move(name)), weight(weight) {}
};

class Fuseable {
 public:
  virtual ~Fuseable() = default;
  virtual std::vector<FuseProperty> properties() const = 0;
};

}  // namespace quorvi
