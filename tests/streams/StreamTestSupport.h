// Helpers shared by the stream tests.
#ifndef QX_TESTS_STREAMTESTSUPPORT_H
#define QX_TESTS_STREAMTESTSUPPORT_H

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <string>

#include "QXStrStream.h"

namespace qxtest {

#if defined(QX_SANITIZED_BUILD)
constexpr int kScale = 1;
#else
constexpr int kScale = 8;
#endif

// Caller memory that ends at an inaccessible page: a stream that reads or writes one byte past
// its window faults at once, in plain builds too. (Under AddressSanitizer the mapping is not
// instrumented, but the fence is the same.)
class FencedBytes {
 public:
  explicit FencedBytes(size_t n) : size_(n) {
    const size_t page = size_t(sysconf(_SC_PAGESIZE));
    mapped_ = ((n + page - 1) / page + 1) * page;
    void* p = mmap(nullptr, mapped_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    base_ = static_cast<unsigned char*>(p == MAP_FAILED ? nullptr : p);
    if (base_ != nullptr) mprotect(base_ + mapped_ - page, page, PROT_NONE);
    data_ = base_ != nullptr ? base_ + mapped_ - page - n : nullptr;
  }
  FencedBytes(const FencedBytes&) = delete;
  FencedBytes& operator=(const FencedBytes&) = delete;
  ~FencedBytes() {
    if (base_ != nullptr) munmap(base_, mapped_);
  }
  unsigned char* data() { return data_; }
  size_t size() const { return size_; }

 private:
  size_t size_;
  size_t mapped_ = 0;
  unsigned char* base_ = nullptr;
  unsigned char* data_ = nullptr;
};

// The bytes before the cursor of a memory stream: what a writer produced.
inline std::string Written(TQXstrstream& s) {
  return std::string(reinterpret_cast<const char*>(s.buffer), size_t(s.Tell()));
}

// A readable stream over a copy of `text` that the test keeps alive (embedded zeros allowed).
class TextSource {
 public:
  explicit TextSource(const std::string& text)
      : bytes_(text.empty() ? 1 : text.size()),
        stream_(Fill(bytes_, text), int32_t(text.size()), kQXStreamReadable) {}
  TQXstrstream& operator*() { return stream_; }
  TQXstrstream* operator->() { return &stream_; }

 private:
  static unsigned char* Fill(FencedBytes& bytes, const std::string& text) {
    if (!text.empty()) std::memcpy(bytes.data(), text.data(), text.size());
    return bytes.data();
  }
  FencedBytes bytes_;
  TQXstrstream stream_;
};

}  // namespace qxtest

#endif  // QX_TESTS_STREAMTESTSUPPORT_H
