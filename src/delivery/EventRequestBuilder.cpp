#include "delivery/EventRequestBuilder.h"

#include <charconv>

namespace velquin {
namespace {

std::string text(const nlohmann::json& params, const char* key) {
  auto it = params.find(key);
  if (it == params.end() || it->is_null()) return "";
  return it->is_string() ? it->get<std::string>() : it->dump();
}

std::int64_t milliseconds(const nlohmann::json& params) {
  auto it = params.find("timestamp");
  if (it == params.end()) return 0;
  if (it->is_number()) return it->get<std::int64_t>();
  if (!it->is_string()) return 0;
  const auto& value = it->get_ref<const std::string&>();
  std::int64_t parsed = 0;
  std::from_chars(value.data(), value.data() + value.size(), parsed);
  return parsed;
}

std::int32_t versionCode(const std::string& bundleVersion) {
  std::int32_t code = 0;
  std::from_chars(bundleVersion.data(), bundleVersion.data() + bundleVersion.size(), code);
  return code;
}

}  // namespace

protocol::EventRequest buildEventRequest(const nlohmann::json& params, const DeviceFacts& facts,
                                         const EventIdentity& identity) {
  protocol::EventRequest request;
  auto* info = request.mutable_ext_info();
  info->set_os("ios");
  info->set_os_version(facts.osVersion);
  info->set_package_name(facts.packageName);
  info->set_carrier(facts.carrier.empty() ? "Nocarrier" : facts.carrier);
  info->set_device_model(facts.deviceModel);
  info->set_time_zone_abv(facts.timeZoneAbv);
  info->set_time_zone(facts.timeZone);
  info->set_package_version(facts.packageVersion);
  info->set_locale(facts.locale);
  info->set_screen_width(facts.screenWidth);
  info->set_screen_height(facts.screenHeight);
  info->set_screen_density(facts.screenDensity);
  info->set_ext_storage_size(facts.extStorageSize);
  info->set_available_storage_size(facts.availableStorageSize);
  info->set_package_version_code(versionCode(facts.packageVersionCode));

  const nlohmann::json& fields = params.is_object() ? params : nlohmann::json::object();
  auto* event = request.mutable_event();
  event->set_name(text(fields, "eventName"));
  event->set_value(text(fields, "eventValue"));

  request.set_timestamp(milliseconds(fields));
  request.set_device_id(identity.deviceId);
  request.set_app_user_id(text(fields, "userId"));
  request.set_sdkversion("1.0.15");
  request.set_advertiser_id(identity.advertiserId);
  request.set_acquisition_source(identity.acquisitionSource);
  request.set_acquisition_campaign(identity.acquisitionCampaign);
  return request;
}

}  // namespace velquin
