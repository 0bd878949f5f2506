#include "platform/PropertyList.h"

#include <plist/plist.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>

#include "platform/SafeFile.h"

namespace velquin::platform {
namespace {

struct PlistFree {
  void operator()(plist_t node) const { plist_free(node); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

std::optional<PlistValue> convert(plist_t node) {
  switch (plist_get_node_type(node)) {
    case PLIST_STRING: {
      char* text = nullptr;
      plist_get_string_val(node, &text);
      std::string value = text ? text : "";
      std::free(text);
      return value;
    }
    case PLIST_BOOLEAN: {
      uint8_t flag = 0;
      plist_get_bool_val(node, &flag);
      return flag != 0;
    }
    case PLIST_DATA: {
      char* bytes = nullptr;
      uint64_t length = 0;
      plist_get_data_val(node, &bytes, &length);
      Bytes value(bytes, bytes + length);
      std::free(bytes);
      return value;
    }
    case PLIST_UINT: {
      uint64_t number = 0;
      plist_get_uint_val(node, &number);
      return static_cast<std::int64_t>(number);
    }
    case PLIST_REAL: {
      double number = 0;
      plist_get_real_val(node, &number);
      return number;
    }
    default:
      return std::nullopt;
  }
}

plist_t makeNode(const PlistValue& value) {
  return std::visit(
      [](const auto& v) -> plist_t {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, std::string>) {
          return plist_new_string(v.c_str());
        } else if constexpr (std::is_same_v<T, bool>) {
          return plist_new_bool(v ? 1 : 0);
        } else if constexpr (std::is_same_v<T, Bytes>) {
          return plist_new_data(reinterpret_cast<const char*>(v.data()), v.size());
        } else if constexpr (std::is_same_v<T, std::int64_t>) {
          return plist_new_uint(static_cast<uint64_t>(v));
        } else {
          return plist_new_real(v);
        }
      },
      value);
}

}  // namespace

std::optional<PropertyList> PropertyList::load(const std::filesystem::path& file,
                                               LoadError* error) {
  // Only a regular file, read without blocking and up to a limit: a FIFO, a
  // device or a huge file in its place is unreadable, never a hang.
  ReadProblem problem = ReadProblem::none;
  auto bytes = readRegularFile(file, kMaxFileBytes, nullptr, &problem);
  if (!bytes) {
    if (error) *error = problem == ReadProblem::missing ? LoadError::missing : LoadError::unreadable;
    return std::nullopt;
  }
  return parse(*bytes, error);
}

std::optional<PropertyList> PropertyList::parse(const std::string& bytes, LoadError* error) {
  plist_t root = nullptr;
  if (!bytes.empty()) {
    plist_from_memory(bytes.data(), static_cast<uint32_t>(bytes.size()), &root);
  }
  PlistPtr owner(root);
  if (!root) {
    if (error) *error = LoadError::malformed;
    return std::nullopt;
  }
  if (plist_get_node_type(root) != PLIST_DICT) {
    if (error) *error = LoadError::notDictionary;
    return std::nullopt;
  }
  PropertyList list;
  plist_dict_iter it = nullptr;
  plist_dict_new_iter(root, &it);
  for (;;) {
    char* key = nullptr;
    plist_t node = nullptr;
    plist_dict_next_item(root, it, &key, &node);
    if (!node) break;
    if (auto value = convert(node)) list.values_[key ? key : ""] = std::move(*value);
    std::free(key);
  }
  std::free(it);
  return list;
}

std::optional<std::string> PropertyList::string(const std::string& key) const {
  auto* v = find(key);
  if (v && std::holds_alternative<std::string>(*v)) return std::get<std::string>(*v);
  return std::nullopt;
}

std::optional<bool> PropertyList::boolean(const std::string& key) const {
  auto* v = find(key);
  if (v && std::holds_alternative<bool>(*v)) return std::get<bool>(*v);
  return std::nullopt;
}

std::optional<Bytes> PropertyList::data(const std::string& key) const {
  auto* v = find(key);
  if (v && std::holds_alternative<Bytes>(*v)) return std::get<Bytes>(*v);
  return std::nullopt;
}

const PlistValue* PropertyList::find(const std::string& key) const {
  auto it = values_.find(key);
  return it == values_.end() ? nullptr : &it->second;
}

void PropertyList::set(const std::string& key, PlistValue value) {
  values_[key] = std::move(value);
}

void PropertyList::remove(const std::string& key) { values_.erase(key); }

std::string PropertyList::toXml() const {
  PlistPtr root(plist_new_dict());
  for (const auto& [key, value] : values_) plist_dict_set_item(root.get(), key.c_str(), makeNode(value));
  char* xml = nullptr;
  uint32_t length = 0;
  plist_to_xml(root.get(), &xml, &length);
  std::string text(xml ? xml : "", length);
  std::free(xml);
  return text;
}

bool PropertyList::saveAtomically(const std::filesystem::path& file, std::string* error) const {
  return writePrivateFileAtomically(file, toXml(), error);
}

}  // namespace velquin::platform
