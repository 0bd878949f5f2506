// A library the victim loads only after crash capture is enabled, so that
// the crash happens in a module the engine's snapshot does not have.
namespace plugin {

volatile int* gNowhere = nullptr;

__attribute__((noinline)) void crashInsidePlugin() {
  *gNowhere = 7;
}

}  // namespace plugin

extern "C" __attribute__((visibility("default"))) void crash_victim_plugin_crash() {
  plugin::crashInsidePlugin();
}
