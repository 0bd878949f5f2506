#include "analytics/OVDeviceInfoManager.h"


#include <curl/curl.h>

#include <array>
#include <chrono>
#include <nlohmann/json.hpp>

#include "analytics/OVDeviceInfoManagerHelper.h"
#include "backend/AppToken.h"
#include "platform/Env.h"
#include "support/Console.h"
#include "support/OVUtils.h"
#include "support/Utf8.h"
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
        new OVDeviceInfoManager(platform::Env::standard(), Bundle::main().bundleIdentifier());
    created->startPublicAddressLookup(AppToken::load(Bundle::main()).ipLookupAddress);
    return created;
  }();
  return *manager;
}

OVDeviceInfoManager::OVDeviceInfoManager(platform::Env& env, std::string bundleIdentifier)
    : env_(env), bundleIdentifier_(std::move(bundleIdentifier)) {}

OVDeviceInfoManager::~OVDeviceInfoManager() {
  stopLookup_ = true;
  waitForPublicAddressLookup();
}

std::string OVDeviceInfoManager::appKey() const {
  support::MutexLock lock(mutex_);
  return appKey_;
}

void OVDeviceInfoManager::setAppKey(const std::string& appKey) {
  support::MutexLock lock(mutex_);
  appKey_ = appKey;
}

std::string OVDeviceInfoManager::appsflyer_device_id() const {
  support::MutexLock lock(mutex_);
  return appsflyerDeviceId_;
}

void OVDeviceInfoManager::setAppsflyer_device_id(const std::string& id) {
  support::MutexLock lock(mutex_);
  appsflyerDeviceId_ = id;
}

std::string OVDeviceInfoManager::ipAddress() const {
  return env_.firstIPv4Address();
}

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
  facts.osVersion = env_.osVersion();
  facts.packageName = bundle.bundleIdentifier();
  facts.packageVersion = bundle.shortVersionString();
  facts.packageVersionCode = bundle.version();
  facts.deviceModel = env_.hardwareMachine();
  facts.deviceBrand = env_.deviceBrand();
  facts.locale = env_.localeIdentifier();
  facts.timeZone = env_.timeZoneName();
  facts.timeZoneAbv = env_.timeZoneAbbreviation();
  if (auto storage = env_.storageSizes(env_.dataDirectory())) {
    facts.extStorageSize = storage->totalMB;
    facts.availableStorageSize = storage->availableMB;
  }
  {
    support::MutexLock lock(mutex_);
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
    support::MutexLock lock(mutex_);
    carrier = carrierProvider_;
  }
  std::optional<std::string> name;
  if (carrier) name = carrier();  // outside the lock: the host's code
  if (name && name->empty()) name.reset();
  return name;
}

void OVDeviceInfoManager::setCarrierProvider(CarrierProvider provider) {
  support::MutexLock lock(mutex_);
  carrierProvider_ = std::move(provider);
}

void OVDeviceInfoManager::setScreen(std::int32_t width, std::int32_t height, double density) {
  support::MutexLock lock(mutex_);
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
  support::MutexLock lock(lookupMutex_);
  if (lookupThread_.joinable()) return false;
  lookupThread_ = std::thread([this, url] { lookUpPublicAddress(url); });
  return true;
}

void OVDeviceInfoManager::waitForPublicAddressLookup() {
  support::MutexLock lock(lookupMutex_);
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
  if (text.rfind(kLookupPrefix, 0) == 0)
    text.erase(0, std::char_traits<char>::length(kLookupPrefix));
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
    support::MutexLock lock(mutex_);
    extranetIp_ = ip;
  }
  support::printLine("OVDeviceInfoManager  get WAN IP Address: " + ip);
}

std::string OVDeviceInfoManager::userId() const {
  support::MutexLock lock(mutex_);
  return userId_;
}

void OVDeviceInfoManager::setUserId(const std::string& userId) {
  // Every event carries the id in JSON: text that is not UTF-8 would make
  // each of them fail to serialise.
  if (!support::isValidUtf8(userId)) {
    support::warn("user id refused: it is not valid UTF-8");
    return;
  }
  support::MutexLock lock(mutex_);
  userId_ = userId;
}

std::string OVDeviceInfoManager::idfa() const {
  support::MutexLock lock(mutex_);
  return idfa_;
}

void OVDeviceInfoManager::setIdfa(const std::string& idfa) {
  support::MutexLock lock(mutex_);
  idfa_ = idfa;
}

std::string OVDeviceInfoManager::extranetIp() const {
  support::MutexLock lock(mutex_);
  return extranetIp_;
}

std::string OVDeviceInfoManager::deviceIdentifier() {
  // Its own lock: the keychain may take a while (the Secret Service), and
  // the other fields must stay readable meanwhile.
  support::MutexLock lock(deviceIdMutex_);
  if (deviceId_) return *deviceId_;
  const std::string name = bundleIdentifier_.empty() ? kFallbackKeychainName : bundleIdentifier_;
  const std::string key = name + ".deviceID";
  if (auto stored = env_.keychain().load(key); stored && !stored->empty()) {
    deviceId_ = *stored;
    return *deviceId_;
  }
  std::string id = env_.vendorIdentifier(name);
  if (id.empty()) id = kFallbackVendorId;
  env_.keychain().save(key, id);
  deviceId_ = id;
  return id;
}

std::optional<std::string> OVDeviceInfoManager::advertisingIdentifier() const {
  AdvertisingIdProvider provider;
  {
    support::MutexLock lock(mutex_);
    provider = advertisingIdProvider_;
  }
  if (!provider) return std::nullopt;
  auto id = provider();
  if (!id || id->empty() || *id == kZeroAdvertisingId) return std::nullopt;
  return id;
}

void OVDeviceInfoManager::setAdvertisingIdProvider(AdvertisingIdProvider provider) {
  support::MutexLock lock(mutex_);
  advertisingIdProvider_ = std::move(provider);
}

}  // namespace velquin
