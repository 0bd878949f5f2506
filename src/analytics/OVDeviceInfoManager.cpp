#include "analytics/OVDeviceInfoManager.h"

#include <glib.h>

#include <curl/curl.h>
#include <openssl/evp.h>
#include <systemd/sd-id128.h>
#include <uuid/uuid.h>

#include <array>
#include <chrono>
#include <nlohmann/json.hpp>

#include "analytics/OVDeviceInfoManagerHelper.h"
#include "backend/AppToken.h"
#include "support/OVUtils.h"
#include "platform/Keychain.h"
#include "platform/SystemInfo.h"
#include "support/Console.h"
#include "velquin/Bundle.h"

namespace velquin {
namespace {

constexpr const char* kLookupPath = "/cityjson?ie=utf-8";
constexpr const char* kLookupPrefix = "var returnCitySN = ";
constexpr std::size_t kLookupMaxBody = 64 * 1024;

struct Download {
  std::string body;
  const std::atomic<bool>* stop = nullptr;
};

std::size_t appendBody(char* data, std::size_t size, std::size_t count, void* user) {
  auto* download = static_cast<Download*>(user);
  const std::size_t bytes = size * count;
  if (download->body.size() + bytes > kLookupMaxBody) return 0;  // aborts the transfer
  download->body.append(data, bytes);
  return bytes;
}

int checkStop(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  return static_cast<Download*>(user)->stop->load() ? 1 : 0;  // non-zero aborts
}

}  // namespace

OVDeviceInfoManager& OVDeviceInfoManager::shared() {
  static OVDeviceInfoManager* manager = [] {  // lives for the process
    auto* created =
        new OVDeviceInfoManager(platform::Keychain::standard(), Bundle::main().bundleIdentifier());
    created->startPublicAddressLookup(AppToken::load(Bundle::main()).ipLookupAddress);
    return created;
  }();
  return *manager;
}

OVDeviceInfoManager::OVDeviceInfoManager(platform::Keychain& keychain,
                                         std::string bundleIdentifier)
    : OVDeviceInfoManager(keychain, std::move(bundleIdentifier), vendorIdentifier) {}

OVDeviceInfoManager::OVDeviceInfoManager(platform::Keychain& keychain,
                                         std::string bundleIdentifier,
                                         VendorIdSource vendorIdSource)
    : keychain_(keychain),
      bundleIdentifier_(std::move(bundleIdentifier)),
      vendorIdSource_(std::move(vendorIdSource)) {}

OVDeviceInfoManager::~OVDeviceInfoManager() {
  stopLookup_ = true;
  waitForPublicAddressLookup();
}

std::string OVDeviceInfoManager::appsflyer_device_id() const {
  std::lock_guard lock(mutex_);
  return appsflyerDeviceId_;
}

void OVDeviceInfoManager::setAppsflyer_device_id(const std::string& id) {
  std::lock_guard lock(mutex_);
  appsflyerDeviceId_ = id;
}

std::string OVDeviceInfoManager::ipAddress() const { return platform::firstIPv4Address(); }

OVDeviceInfoManagerHelper& OVDeviceInfoManager::objcHelper() const {
  return OVDeviceInfoManagerHelper::sharedManager();
}

double OVDeviceInfoManager::getCurrentMSimestamp() {
  using namespace std::chrono;
  return duration<double, std::milli>(system_clock::now().time_since_epoch()).count();
}

DeviceFacts OVDeviceInfoManager::deviceFacts() const {
  DeviceFacts facts;
  const Bundle& bundle = Bundle::main();
  facts.osVersion = platform::osVersion();
  facts.packageName = bundle.bundleIdentifier();
  facts.packageVersion = bundle.shortVersionString();
  facts.packageVersionCode = bundle.version();
  facts.deviceModel = platform::hardwareMachine();
  facts.deviceBrand = platform::deviceBrand();
  facts.locale = platform::localeIdentifier();
  facts.timeZone = platform::timeZoneName();
  facts.timeZoneAbv = platform::timeZoneAbbreviation();
  if (auto storage = platform::storageSizes(bundle.dataDirectory())) {
    facts.extStorageSize = storage->totalMB;
    facts.availableStorageSize = storage->availableMB;
  }
  {
    std::lock_guard lock(mutex_);
    facts.screenWidth = screenWidth_;
    facts.screenHeight = screenHeight_;
    facts.screenDensity = screenDensity_;
  }
  facts.carrier = carrierName().value_or(kNoCarrier);
  return facts;
}

std::optional<std::string> OVDeviceInfoManager::carrierName() const {
  CarrierProvider carrier;
  {
    std::lock_guard lock(mutex_);
    carrier = carrierProvider_;
  }
  std::optional<std::string> name;
  if (carrier) name = carrier();  // outside the lock: the host's code
  if (name && name->empty()) name.reset();
  return name;
}

void OVDeviceInfoManager::setCarrierProvider(CarrierProvider provider) {
  std::lock_guard lock(mutex_);
  carrierProvider_ = std::move(provider);
}

void OVDeviceInfoManager::setScreen(std::int32_t width, std::int32_t height, double density) {
  std::lock_guard lock(mutex_);
  screenWidth_ = width;
  screenHeight_ = height;
  screenDensity_ = density;
}

bool OVDeviceInfoManager::startPublicAddressLookup(const std::optional<std::string>& address) {
  if (!address || address->empty()) return false;
  std::string url = *address;
  if (url.find("://") == std::string::npos) url = "https://" + url;
  while (!url.empty() && url.back() == '/') url.pop_back();
  url += kLookupPath;
  std::lock_guard lock(lookupMutex_);
  if (lookupThread_.joinable()) return false;
  lookupThread_ = std::thread([this, url] { lookUpPublicAddress(url); });
  return true;
}

void OVDeviceInfoManager::waitForPublicAddressLookup() {
  std::lock_guard lock(lookupMutex_);
  if (lookupThread_.joinable()) lookupThread_.join();
}

// On the lookup thread.
void OVDeviceInfoManager::lookUpPublicAddress(const std::string& url) {
  static std::once_flag curlReady;
  std::call_once(curlReady, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
  CURL* curl = curl_easy_init();
  if (!curl) return;
  Download download;
  download.stop = &stopLookup_;
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(curl, CURLOPT_MAXREDIRS, 3L);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, 5000L);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, 10000L);
  curl_easy_setopt(curl, CURLOPT_FAILONERROR, 1L);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, appendBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &download);
  curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, checkStop);
  curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &download);
  CURLcode code = curl_easy_perform(curl);
  curl_easy_cleanup(curl);
  if (code != CURLE_OK) {
    // A failed lookup stays quiet apart from the SDK's own log.
    velquin::log(std::string("public address lookup failed: ") + curl_easy_strerror(code));
    return;
  }

  std::string text = std::move(download.body);
  if (text.rfind(kLookupPrefix, 0) == 0) text.erase(0, std::char_traits<char>::length(kLookupPrefix));
  if (!text.empty()) text.pop_back();  // the closing ";"
  std::string ip;
  try {
    auto reply = nlohmann::json::parse(text);
    auto cip = reply.is_object() ? reply.find("cip") : reply.end();
    if (!reply.is_object() || cip == reply.end() || !cip->is_string()) {
      support::printLine("OVDeviceInfoManager  WAN IP Address reply has no \"cip\" text");
      return;
    }
    ip = cip->get<std::string>();
  } catch (const nlohmann::json::exception& error) {
    support::printLine(std::string("OVDeviceInfoManager  get WAN IP Address failed: ") +
                       error.what());
    return;
  }
  {
    std::lock_guard lock(mutex_);
    extranetIp_ = ip;
  }
  support::printLine("OVDeviceInfoManager  get WAN IP Address: " + ip);
}

std::string OVDeviceInfoManager::userId() const {
  std::lock_guard lock(mutex_);
  return userId_;
}

void OVDeviceInfoManager::setUserId(const std::string& userId) {
  // Every event carries the id in JSON: text that is not UTF-8 would make
  // each of them fail to serialise.
  if (!g_utf8_validate(userId.data(), static_cast<gssize>(userId.size()), nullptr)) {
    support::warn("user id refused: it is not valid UTF-8");
    return;
  }
  std::lock_guard lock(mutex_);
  userId_ = userId;
}

std::string OVDeviceInfoManager::idfa() const {
  std::lock_guard lock(mutex_);
  return idfa_;
}

void OVDeviceInfoManager::setIdfa(const std::string& idfa) {
  std::lock_guard lock(mutex_);
  idfa_ = idfa;
}

std::string OVDeviceInfoManager::extranetIp() const {
  std::lock_guard lock(mutex_);
  return extranetIp_;
}

std::string OVDeviceInfoManager::deviceIdentifier() {
  // Its own lock: the keychain may take a while (the Secret Service), and
  // the other fields must stay readable meanwhile.
  std::lock_guard lock(deviceIdMutex_);
  if (deviceId_) return *deviceId_;
  const std::string name = bundleIdentifier_.empty() ? kFallbackKeychainName : bundleIdentifier_;
  const std::string key = name + ".deviceID";
  if (auto stored = keychain_.load(key); stored && !stored->empty()) {
    deviceId_ = *stored;
    return *deviceId_;
  }
  std::string id = vendorIdSource_ ? vendorIdSource_(name) : std::string();
  if (id.empty()) id = kFallbackVendorId;
  keychain_.save(key, id);
  deviceId_ = id;
  return id;
}

std::optional<std::string> OVDeviceInfoManager::advertisingIdentifier() const {
  AdvertisingIdProvider provider;
  {
    std::lock_guard lock(mutex_);
    provider = advertisingIdProvider_;
  }
  if (!provider) return std::nullopt;
  auto id = provider();
  if (!id || id->empty() || *id == kZeroAdvertisingId) return std::nullopt;
  return id;
}

void OVDeviceInfoManager::setAdvertisingIdProvider(AdvertisingIdProvider provider) {
  std::lock_guard lock(mutex_);
  advertisingIdProvider_ = std::move(provider);
}

std::string vendorIdentifier(const std::string& appId) {
  // The application id for sd_id128_get_machine_app_specific is 128 bits: the
  // first 16 bytes of the SHA-256 of the bundle identifier.
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  if (EVP_Digest(appId.data(), appId.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1) {
    return "";
  }
  sd_id128_t app{};
  std::copy_n(digest.begin(), sizeof app.bytes, app.bytes);
  sd_id128_t machine{};
  if (sd_id128_get_machine_app_specific(app, &machine) < 0) return "";
  uuid_t uuid;
  std::copy_n(machine.bytes, sizeof uuid, uuid);
  char text[37];
  uuid_unparse_upper(uuid, text);
  return text;
}

}  // namespace velquin
