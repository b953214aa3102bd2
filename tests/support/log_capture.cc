#include "support/log_capture.h"

#include <cstdlib>

#include "kab/core.h"

namespace kab_test {

LogCapture::LogCapture() : former_(kabLogStrm) {
  stream_ = open_memstream(&buffer_, &size_);
  KABInit(0, stream_);
}

LogCapture::~LogCapture() {
  kabLogStrm = former_;
  std::fclose(stream_);
  std::free(buffer_);
}

std::string LogCapture::Text() {
  std::fflush(stream_);
  return std::string(buffer_ + start_, size_ - start_);
}

void LogCapture::Clear() {
  std::fflush(stream_);
  start_ = size_;
}

}  // namespace kab_test
