#include "orrery/Exception.hpp"

#include <dlfcn.h>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "orrery/Memory.hpp"

namespace {

// A library that throws, loaded as a plug-in is: its symbols are its own.
class ThrowingLibrary : public testing::Test {
 protected:
  using throw_t = void (*)(const char*);

  ThrowingLibrary() : _handle(dlopen(ORRERY_THROWING_LIBRARY, RTLD_NOW | RTLD_LOCAL)) {}
  ~ThrowingLibrary() override {
    if (_handle != nullptr) dlclose(_handle);
  }
  throw_t function(const char* name) const {
    if (_handle == nullptr) throw std::logic_error(dlerror());
    return reinterpret_cast<throw_t>(dlsym(_handle, name));
  }

 private:
  void* const _handle;
};

TEST_F(ThrowingLibrary, ItsExceptionIsCaughtByTypeHere) {
  const throw_t throwException = function("throw_exception");
  std::string caught;
  try {
    throwException("across");
  } catch (const orrery::StreamException&) {
    caught = "the derived type";
  } catch (const orrery::Exception& error) {
    caught = error.what();
  }
  EXPECT_EQ(caught, "across");
}

TEST_F(ThrowingLibrary, ItsStreamExceptionIsCaughtByTypeHere) {
  const throw_t throwStreamException = function("throw_stream_exception");
  std::string caught;
  try {
    throwStreamException("Error processing response stream: I/O error");
  } catch (const orrery::StreamException& error) {
    caught = error.what();
  }
  EXPECT_EQ(caught, "Error processing response stream: I/O error");
}

TEST(Exception, IsARuntimeErrorWithItsText) {
  EXPECT_THROW(throw orrery::Exception("text"), std::runtime_error);
  EXPECT_THROW(throw orrery::StreamException("text"), orrery::Exception);
  EXPECT_STREQ(orrery::StreamException("text").what(), "text");
}

TEST(Memory, ABlockOfNoBytesIsABlockToo) {
  void* block = orrery::zq_malloc(0);
  EXPECT_NE(block, nullptr);
  std::free(block);
}

}  // namespace
