#include "sync/base/files/file_text.hpp"

#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <new>

#include "sync/base/error.hpp"
#include "sync/base/files/descriptor.hpp"

namespace brackenfen::sync {

FileText::FileText(const std::string& path) : FileText() {
  constexpr std::size_t HUGE_PAGE_BYTES = 2 * 1024 * 1024;
  const Descriptor file = open_regular_file(path);
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) throw os_error(errno, path);
  const auto size_bytes = static_cast<std::size_t>(status.st_size);
  if (size_bytes > LARGEST_READ_FILE_BYTES) throw os_error(EFBIG, path);
  // One byte more than the size, so that the end of an ordinary file shows without growing.
  void* const memory = ::mmap(nullptr, size_bytes + 1, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::bad_alloc();
  start_ = static_cast<char*>(memory);
  room_ = size_bytes + 1;
  if (room_ >= HUGE_PAGE_BYTES) ::madvise(start_, room_, MADV_HUGEPAGE);  // a wish
  while (const std::size_t count = read_some(file, start_ + size_, room_ - size_, path)) {
    size_ += count;
    if (size_ > LARGEST_READ_FILE_BYTES) throw os_error(EFBIG, path);
    if (size_ == room_) grow();
  }
}

FileText::~FileText() {
  if (start_ != nullptr) ::munmap(start_, room_);
}

void FileText::grow() {
  void* const memory = ::mremap(start_, room_, 2 * room_, MREMAP_MAYMOVE);
  if (memory == MAP_FAILED) throw std::bad_alloc();
  start_ = static_cast<char*>(memory);
  room_ *= 2;
}

}  // namespace brackenfen::sync
