#include "host/chain/PluginLibrary.hpp"

#include <cstddef>
#include <dlfcn.h>
#include <filesystem>
#include <new>
#include <stdexcept>
#include <vector>

namespace host {

namespace {

// A path with a slash: the loader searches its path for anything else.
std::string asFile(const std::string& path) {
  return path.find('/') == std::string::npos ? "./" + path : path;
}

// The file in a folder that is given in relation to the running program's own.
std::string besideProgram(const char* folder, const std::string& name) {
  std::error_code error;
  const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
  return (program.parent_path() / folder / name).lexically_normal().string();
}

std::vector<std::string> candidates(const std::string& transport,
                                    const std::optional<std::string>& file) {
  if (file) return {asFile(*file)};
  const std::string name = "lib" + transport + ".so";
  std::vector<std::string> all;
  for (const char* folder : {"../lib", ORRERY_PLUGIN_DIR}) {
    all.push_back(besideProgram(folder, name));
    // One that stands there but does not load is an error, not a reason to take another.
    if (std::filesystem::exists(all.back())) return {all.back()};
  }
  all.push_back(name);
  return all;
}

// The folders that the loader searches for a name without a slash.
std::vector<std::string> loaderFolders() {
  void* program = ::dlopen(nullptr, RTLD_NOW);
  Dl_serinfo size{};
  if (program == nullptr || ::dlinfo(program, RTLD_DI_SERINFOSIZE, &size) != 0) return {};
  std::vector<std::max_align_t> memory(size.dls_size / sizeof(std::max_align_t) + 1);
  auto* info = new (memory.data()) Dl_serinfo(size);
  std::vector<std::string> folders;
  if (::dlinfo(program, RTLD_DI_SERINFO, info) == 0) {
    const Dl_serpath* paths = &info->dls_serpath[0];
    for (unsigned i = 0; i < info->dls_cnt; ++i) folders.emplace_back(paths[i].dls_name);
  }
  ::dlclose(program);
  return folders;
}

// A candidate, and for a bare name where it was looked for.
std::string placeOf(const std::string& candidate) {
  std::string place = candidate;
  if (candidate.find('/') != std::string::npos) return place;
  const char* between = " in ";
  for (const std::string& folder : loaderFolders()) {
    place.append(between).append(folder);
    between = ", ";
  }
  return place;
}

std::string lastLoaderError() {
  const char* error = ::dlerror();
  return error == nullptr ? "unknown error" : error;
}

}  // namespace

PluginLibrary::PluginLibrary(const std::string& transport, const std::optional<std::string>& file) {
  open(transport, file);
  try {
    resolve(transport);
  } catch (...) {
    ::dlclose(_handle);
    throw;
  }
}

PluginLibrary::~PluginLibrary() { ::dlclose(_handle); }

void PluginLibrary::open(const std::string& transport, const std::optional<std::string>& file) {
  std::string tried;
  for (const std::string& candidate : candidates(transport, file)) {
    _handle = ::dlopen(candidate.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (_handle != nullptr) {
      _path = candidate;
      return;
    }
    const std::string error = lastLoaderError();
    tried += (tried.empty() ? "" : "; ") + placeOf(candidate) + " (" + error + ")";
  }
  const char* hint = file ? "" : "; \"library\" in the chain file can name the file";
  throw std::runtime_error("cannot load the transport " + transport + ", tried " + tried + hint);
}

template <typename Function>
void PluginLibrary::find(const std::string& prefix, const std::string& transport,
                         Function& function) const {
  const std::string name = prefix + transport;
  function = reinterpret_cast<Function>(::dlsym(_handle, name.c_str()));
  if (function == nullptr) throw std::runtime_error(_path + " does not export " + name);
}

void PluginLibrary::resolve(const std::string& transport) {
  qor_plugin_api_version_t apiVersion = nullptr;
  qor_plugin_check_is_transport_t checkIsTransport = nullptr;
  find("qor_plugin_api_version_", transport, apiVersion);
  find("qor_plugin_product_version_", transport, _productVersion);
  find("qor_create_plugin_with_params_", transport, _entryPoints.create);
  find("qor_plugin_start_", transport, _entryPoints.start);
  find("qor_plugin_hostReady_", transport, _entryPoints.hostReady);
  find("qor_plugin_shutdown_", transport, _entryPoints.shutdown);
  find("qor_plugin_setNextTowardsHost_", transport, _entryPoints.setNextTowardsHost);
  find("qor_plugin_sendBatchTowardsTransport_", transport, _entryPoints.sendBatchTowardsTransport);
  find("qor_destroy_plugin_", transport, _entryPoints.destroy);
  find("_qor_plugin_checkIsTransport_", transport, checkIsTransport);
  checkInterface(apiVersion, checkIsTransport);
}

void PluginLibrary::checkInterface(qor_plugin_api_version_t apiVersion,
                                   qor_plugin_check_is_transport_t checkIsTransport) const {
  const auto version = apiVersion();
  if (version != QOR_PLUGIN_API_VERSION) {
    throw std::runtime_error(_path + " has version " + std::to_string(version) +
                             " of the plug-in interface; this host needs " +
                             std::to_string(QOR_PLUGIN_API_VERSION));
  }
  constexpr uintptr_t word = 1;
  if (checkIsTransport(word) != word) throw std::runtime_error(_path + " is not a transport");
}

}  // namespace host
