// AVSerializer: defaults and rules of its keys.
#include "vesk/messages/avserializer.h"

#include "settingsrules.h"

namespace vesk {
namespace ipc {
namespace messages {

using namespace vesk::encoder::internal;
using vesk::variant::Variant;

AVSerializer::AVSerializer() {}

AVSerializer::AVSerializer(const Variant& value) : BaseVariantContainer(value) {}

AVSerializer::~AVSerializer() {}

bool AVSerializer::NormalizeFields() {
  StoreOneOf(*this, "type", type(), kTypeValues);
  StoreValue(*this, "parameters", parameters());
  StoreValue(*this, "destinations", destinations());
  return BaseVariantContainer::NormalizeFields();
}

std::string AVSerializer::type() { return ReadString(*this, "type", kTypeValues[0]); }
vesk::variant::Variant& AVSerializer::parameters() { return ReadAnyContainer(*this, "parameters"); }
vesk::variant::Variant& AVSerializer::destinations() {
  return ReadAnyContainer(*this, "destinations");
}

}  // namespace messages
}  // namespace ipc
}  // namespace vesk
