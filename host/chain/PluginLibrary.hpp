// A transport's shared library and its ten entry points.
#pragma once

#include <optional>
#include <string>

#include "connectivity/qor_plugin.h"

namespace host {

// Loaded for as long as the object lives; every plug-in that was created by it is destroyed before.
// The entry points may be called as qor_plugin.h says.
class PluginLibrary {
 public:
  // Loads the transport of that name: from `file`; or, without one, lib<transport>.so from the
  // directory ../lib beside the running program; where there is none, from the directory where
  // transports are installed (orrery/ in the library directory of the program's own prefix); or
  // else from the loader's path. std::runtime_error names every file that was tried (for the
  // loader's path its folders too) and why it would not do: not found, an entry point that is
  // missing, another interface version, no transport.
  PluginLibrary(const std::string& transport, const std::optional<std::string>& file);
  ~PluginLibrary();
  PluginLibrary(const PluginLibrary&) = delete;
  PluginLibrary& operator=(const PluginLibrary&) = delete;

  // Where it was loaded from.
  const std::string& path() const noexcept { return _path; }
  const char* productVersion() const { return _productVersion(); }

  // Constant after construction. The names are those of qor_plugin.h.
  struct EntryPoints {
    qor_create_plugin_with_params_t create = nullptr;
    qor_plugin_start_t start = nullptr;
    qor_plugin_host_ready_t hostReady = nullptr;
    qor_plugin_shutdown_t shutdown = nullptr;
    qor_plugin_set_next_towards_host_t setNextTowardsHost = nullptr;
    qor_plugin_send_batch_towards_transport_t sendBatchTowardsTransport = nullptr;
    qor_destroy_plugin_t destroy = nullptr;
  };
  const EntryPoints& entryPoints() const noexcept { return _entryPoints; }

 private:
  void open(const std::string& transport, const std::optional<std::string>& file);
  void resolve(const std::string& transport);
  void checkInterface(qor_plugin_api_version_t apiVersion,
                      qor_plugin_check_is_transport_t checkIsTransport) const;
  template <typename Function>
  void find(const std::string& prefix, const std::string& transport, Function& function) const;

  std::string _path;
  void* _handle = nullptr;
  EntryPoints _entryPoints;
  qor_plugin_product_version_t _productVersion = nullptr;
};

}  // namespace host
