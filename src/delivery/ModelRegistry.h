// Values, rows and model descriptions of the table store.
//
// C++ has no run-time property reflection, so every model type that the
// store maps to a table describes itself once: its registered name, the
// properties it declares itself (not those of a base type), each with its
// type encoding string (the platform's attribute form, e.g. T@"NSString",
// Tq, Ti, T@"NSNumber", Td, T@"NSDictionary") and a getter and setter by
// property name. The registry maps names to descriptions so a model can also
// be named by a string.
//
// Ordering: ZKColumns and ZKRow keep their entries in insertion order
// (nlohmann::ordered_map); that order is the "enumeration order" the store
// walks when it builds statements. A model's column dictionary lists its
// properties in declaration order. (These maps copy-construct and move, but
// do not copy-assign.)
//
// Ownership and threads: descriptions are immutable once registered and live
// for the process; the registry is safe to use from any thread. Model
// objects themselves are plain values owned by their holder, not thread-safe.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <unordered_map>
#include <variant>
#include <vector>
#include "support/Mutex.h"

namespace velquin {

using ZKBlob = std::vector<std::uint8_t>;
// One SQLite value: NULL (monostate), INTEGER, REAL, TEXT or BLOB.
using ZKValue = std::variant<std::monostate, std::int64_t, double, std::string, ZKBlob>;
// Table shape as a dictionary: column name -> type word ("TEXT", "BLOB",
// "INTEGER", "REAL"). Insertion-ordered.
using ZKColumns = nlohmann::ordered_map<std::string, std::string>;
// One row as a dictionary: column name -> value. Insertion-ordered.
using ZKRow = nlohmann::ordered_map<std::string, ZKValue>;

bool zkIsNull(const ZKValue& value);
// Conversions in the manner of key-value coding: numbers from text are read
// as a leading decimal number (0 when there is none), doubles are truncated.
std::int64_t zkToInt64(const ZKValue& value);
double zkToDouble(const ZKValue& value);
// Text of a value; absent for NULL. Numbers are written in decimal, bytes as
// they are.
std::optional<std::string> zkToText(const ZKValue& value);

class ZKModelDescription;

// Base of every object the store can write as a row or create from one.
class ZKModelObject {
 public:
  virtual ~ZKModelObject() = default;
  virtual const ZKModelDescription& zk_modelDescription() const = 0;
  // Told the pkid of the row a lookup restored the object from; objects
  // that keep no row identity ignore it.
  virtual void zk_setPrimaryKey(std::int64_t /*pkid*/) {}

 protected:
  ZKModelObject() = default;
  ZKModelObject(const ZKModelObject&) = default;
  ZKModelObject& operator=(const ZKModelObject&) = default;
};

struct ZKPropertyDescription {
  std::string name;
  std::string typeEncoding;
  // Current value; NULL stands for nil (left out of inserts and updates).
  std::function<ZKValue(const ZKModelObject&)> get;
  std::function<void(ZKModelObject&, const ZKValue&)> set;
};

class ZKModelDescription {
 public:
  ZKModelDescription(std::string name, std::vector<ZKPropertyDescription> properties,
                     std::function<std::unique_ptr<ZKModelObject>()> make);

  const std::string& name() const { return name_; }
  const std::vector<ZKPropertyDescription>& properties() const { return properties_; }
  const ZKPropertyDescription* property(const std::string& name) const;
  // A fresh instance, as a plain `new` would make it.
  std::unique_ptr<ZKModelObject> make() const { return make_(); }

 private:
  std::string name_;
  std::vector<ZKPropertyDescription> properties_;
  std::function<std::unique_ptr<ZKModelObject>()> make_;
};

class ZKModelRegistry {
 public:
  static ZKModelRegistry& shared();

  // Registers `description` under its name and returns it; a name that is
  // already taken keeps its first description, which is returned.
  const ZKModelDescription& add(std::unique_ptr<const ZKModelDescription> description);
  // The description registered under `name`, or none.
  const ZKModelDescription* find(const std::string& name) const;

 private:
  mutable support::Mutex mutex_;
  std::unordered_map<std::string, std::unique_ptr<const ZKModelDescription>> models_
      GUARDED_BY(mutex_);
};

}  // namespace velquin
