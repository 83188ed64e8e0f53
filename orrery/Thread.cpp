#include "orrery/Thread.hpp"

#include <cxxabi.h>
#include <exception>
#include <pthread.h>
#include <system_error>
#include <utility>

#include "connectivity/qor_plugin.h"
#include "orrery/Exception.hpp"

namespace orrery {

namespace {

constexpr std::size_t longestSystemName = 15;

void nameCallingThread(const std::string& name) noexcept {
  char cut[longestSystemName + 1] = {};
  name.copy(cut, longestSystemName);
  // A thread without its name works as well: the result does not matter.
  pthread_setname_np(pthread_self(), cut);
}

void reportEscaped(const std::string& name, const char* text) noexcept {
  qor_log_at("orrery", QOR_LOG_ERROR, "Thread %s was ended by an exception: %s", name.c_str(),
             text);
}

}  // namespace

Thread::Thread(std::string name) : _name(std::move(name)) {}

Thread::~Thread() {
  Thread::signal();
  if (_thread.joinable()) _thread.join();
}

void Thread::start() {
  if (_started) throw Exception("Thread " + _name + " is already started");
  try {
    _thread = std::thread([this] { body(); });
  } catch (const std::system_error& error) {
    throw Exception("Thread " + _name + " could not be started: " + error.what());
  }
  _started = true;
}

void Thread::stop() {
  if (isCurrent()) throw Exception("Thread " + _name + " cannot wait for itself");
  signal();
  if (_thread.joinable()) _thread.join();
}

void Thread::signal() { _stopRequested.store(true, std::memory_order_release); }

bool Thread::isCurrent() const noexcept {
  return _id.load(std::memory_order_relaxed) == std::this_thread::get_id();
}

void Thread::body() {
  _id.store(std::this_thread::get_id(), std::memory_order_relaxed);
  nameCallingThread(_name);
  try {
    run();
  } catch (const abi::__forced_unwind&) {
    throw;  // pthread_cancel or pthread_exit, which must reach the end of the thread
  } catch (const std::exception& error) {
    reportEscaped(_name, error.what());
  } catch (...) {
    reportEscaped(_name, "unknown exception");
  }
  // The system may give a later thread the same id.
  _id.store(std::thread::id(), std::memory_order_relaxed);
}

}  // namespace orrery
