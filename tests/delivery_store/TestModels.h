// A model with one property of each kind the table store maps, for tests.
#pragma once

#include <optional>
#include <string>

#include "delivery/ModelRegistry.h"

namespace velquin::testing {

struct Note final : ZKModelObject {
  std::optional<std::string> title;  // T@"NSString"  -> TEXT
  std::optional<ZKBlob> body;        // T@"NSData"    -> BLOB
  std::int64_t count = 0;            // Tq            -> INTEGER
  std::optional<double> score;       // T@"NSNumber"  -> INTEGER (fraction lost)
  double ratio = 0;                  // Td            -> REAL
  nlohmann::json tags;               // T@"NSDictionary" -> no column
  char letter = 'x';                 // Tc            -> no column

  static const ZKModelDescription& zk_model() {
    static const ZKModelDescription& model = ZKModelRegistry::shared().add(
        std::make_unique<const ZKModelDescription>(
            "Note",
            std::vector<ZKPropertyDescription>{
                {"title", "T@\"NSString\",C,N",
                 [](const ZKModelObject& o) -> ZKValue {
                   auto& t = self(o).title;
                   return t ? ZKValue(*t) : ZKValue();
                 },
                 [](ZKModelObject& o, const ZKValue& v) { self(o).title = zkToText(v); }},
                {"body", "T@\"NSData\",&,N",
                 [](const ZKModelObject& o) -> ZKValue {
                   auto& b = self(o).body;
                   return b ? ZKValue(*b) : ZKValue();
                 },
                 [](ZKModelObject& o, const ZKValue& v) {
                   if (auto* b = std::get_if<ZKBlob>(&v)) self(o).body = *b;
                 }},
                {"count", "Tq,N",
                 [](const ZKModelObject& o) -> ZKValue { return self(o).count; },
                 [](ZKModelObject& o, const ZKValue& v) { self(o).count = zkToInt64(v); }},
                {"score", "T@\"NSNumber\",&,N",
                 [](const ZKModelObject& o) -> ZKValue {
                   auto& s = self(o).score;
                   return s ? ZKValue(*s) : ZKValue();
                 },
                 [](ZKModelObject& o, const ZKValue& v) { self(o).score = zkToDouble(v); }},
                {"ratio", "Td,N", [](const ZKModelObject& o) -> ZKValue { return self(o).ratio; },
                 [](ZKModelObject& o, const ZKValue& v) { self(o).ratio = zkToDouble(v); }},
                {"tags", "T@\"NSDictionary\",&,N",
                 [](const ZKModelObject&) -> ZKValue { return {}; },
                 [](ZKModelObject&, const ZKValue&) {}},
                {"letter", "Tc,N", [](const ZKModelObject&) -> ZKValue { return {}; },
                 [](ZKModelObject&, const ZKValue&) {}},
            },
            [] { return std::make_unique<Note>(); }));
    return model;
  }
  const ZKModelDescription& zk_modelDescription() const override { return zk_model(); }

 private:
  static Note& self(ZKModelObject& o) { return static_cast<Note&>(o); }
  static const Note& self(const ZKModelObject& o) { return static_cast<const Note&>(o); }
};

}  // namespace velquin::testing
