#include <NimbFoundation/Platform/Value.h>

namespace nimb {

double Value::numberValue() const {
  if (auto* b = asBool()) return *b ? 1.0 : 0.0;
  if (auto* i = asInteger()) return static_cast<double>(*i);
  if (auto* r = asReal()) return *r;
  return 0.0;
}

const Value* Value::find(std::string_view key) const {
  auto* dict = asDictionary();
  if (!dict) return nullptr;
  auto it = dict->find(key);
  return it == dict->end() ? nullptr : &it->second;
}

}  // namespace nimb
