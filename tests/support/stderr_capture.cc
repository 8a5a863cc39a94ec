#include "support/stderr_capture.h"

#include <gtest/gtest.h>

#include <iostream>
#include <sstream>

namespace testing_support {

StderrCapture::StderrCapture() {
  std::cerr.flush();
  testing::internal::CaptureStderr();
}

StderrCapture::~StderrCapture() { Text(); }

std::string StderrCapture::Text() {
  if (!done_) {
    std::cerr.flush();
    text_ = testing::internal::GetCapturedStderr();
    done_ = true;
  }
  return text_;
}

std::vector<std::string> StderrCapture::Lines() {
  std::vector<std::string> lines;
  std::istringstream in(Text());
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

}  // namespace testing_support
