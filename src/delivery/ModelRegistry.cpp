#include "delivery/ModelRegistry.h"

#include <charconv>
#include <cstdlib>
#include "support/Mutex.h"

namespace velquin {

bool zkIsNull(const ZKValue& value) {
  return std::holds_alternative<std::monostate>(value);
}

std::int64_t zkToInt64(const ZKValue& value) {
  if (const auto* integer = std::get_if<std::int64_t>(&value)) return *integer;
  if (const auto* real = std::get_if<double>(&value)) {
    // Out-of-range doubles have no integer value; saturate instead of UB.
    if (!(*real == *real)) return 0;
    if (*real >= 9.2233720368547758e18) return INT64_MAX;
    if (*real <= -9.2233720368547758e18) return INT64_MIN;
    return static_cast<std::int64_t>(*real);
  }
  if (const auto* text = std::get_if<std::string>(&value)) {
    std::size_t start = text->find_first_not_of(" \t\n");
    if (start == std::string::npos) return 0;
    std::int64_t result = 0;
    const char* first = text->data() + start;
    if (*first == '+') ++first;
    auto [end, error] = std::from_chars(first, text->data() + text->size(), result);
    (void)end;
    return error == std::errc() ? result : 0;
  }
  return 0;
}

double zkToDouble(const ZKValue& value) {
  if (const auto* real = std::get_if<double>(&value)) return *real;
  if (const auto* integer = std::get_if<std::int64_t>(&value)) {
    return static_cast<double>(*integer);
  }
  if (const auto* text = std::get_if<std::string>(&value)) {
    return std::strtod(text->c_str(), nullptr);
  }
  return 0;
}

std::optional<std::string> zkToText(const ZKValue& value) {
  if (const auto* text = std::get_if<std::string>(&value)) return *text;
  if (const auto* integer = std::get_if<std::int64_t>(&value)) return std::to_string(*integer);
  if (const auto* real = std::get_if<double>(&value)) {
    char buffer[32];
    auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, *real);
    if (error != std::errc()) return std::nullopt;
    return std::string(buffer, end);
  }
  if (const auto* bytes = std::get_if<ZKBlob>(&value)) {
    return std::string(bytes->begin(), bytes->end());
  }
  return std::nullopt;
}

ZKModelDescription::ZKModelDescription(std::string name,
                                       std::vector<ZKPropertyDescription> properties,
                                       std::function<std::unique_ptr<ZKModelObject>()> make)
    : name_(std::move(name)), properties_(std::move(properties)), make_(std::move(make)) {}

const ZKPropertyDescription* ZKModelDescription::property(const std::string& name) const {
  for (const auto& property : properties_) {
    if (property.name == name) return &property;
  }
  return nullptr;
}

ZKModelRegistry& ZKModelRegistry::shared() {
  static ZKModelRegistry* registry = new ZKModelRegistry();  // lives for the process
  return *registry;
}

const ZKModelDescription& ZKModelRegistry::add(
    std::unique_ptr<const ZKModelDescription> description) {
  support::MutexLock lock(mutex_);
  auto [it, inserted] = models_.try_emplace(description->name(), nullptr);
  if (inserted) it->second = std::move(description);
  return *it->second;
}

const ZKModelDescription* ZKModelRegistry::find(const std::string& name) const {
  support::MutexLock lock(mutex_);
  auto it = models_.find(name);
  return it == models_.end() ? nullptr : it->second.get();
}

}  // namespace velquin
