// Captures what the process writes to standard error (file descriptor 2).
#pragma once

#include <string>
#include <vector>

namespace testing_support {

class StderrCapture {
 public:
  StderrCapture();
  ~StderrCapture();
  StderrCapture(const StderrCapture&) = delete;
  StderrCapture& operator=(const StderrCapture&) = delete;

  // Ends the capture (once) and returns everything written, split into lines
  // without their line ends.
  std::vector<std::string> Lines();
  // Ends the capture (once) and returns everything written.
  std::string Text();

 private:
  bool done_ = false;
  std::string text_;
};

}  // namespace testing_support
