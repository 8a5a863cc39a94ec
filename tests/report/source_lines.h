// Finds the lines of a source file of this repository that contain a text,
// so that a test can name the exact line a report of the library carries
// without copying a line number that moves with every edit.
#pragma once

#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace report_testing {

// Numbers (from 1) of the lines of "relative_path", under the repository
// root, that contain "needle".
inline std::vector<int> SourceLinesContaining(const std::string& relative_path,
                                              const std::string& needle) {
  std::ifstream in(std::string(DRAVINHOLD_SOURCE_DIR) + "/" + relative_path);
  if (!in) throw std::runtime_error("cannot read " + relative_path);
  std::vector<int> numbers;
  int number = 0;
  for (std::string line; std::getline(in, line);) {
    ++number;
    if (line.find(needle) != std::string::npos) numbers.push_back(number);
  }
  return numbers;
}

// The one line of "relative_path" that contains "needle"; throws unless
// there is exactly one.
inline int OnlySourceLineContaining(const std::string& relative_path, const std::string& needle) {
  const std::vector<int> numbers = SourceLinesContaining(relative_path, needle);
  if (numbers.size() != 1) {
    throw std::runtime_error(relative_path + ": " + std::to_string(numbers.size()) +
                             " lines contain " + needle);
  }
  return numbers.front();
}

// The first line of "relative_path" after the line that contains "anchor"
// that contains "needle"; throws if there is none.
inline int FirstSourceLineAfter(const std::string& relative_path, const std::string& anchor,
                                const std::string& needle) {
  const std::vector<int> anchors = SourceLinesContaining(relative_path, anchor);
  if (anchors.size() != 1) throw std::runtime_error(relative_path + ": no single " + anchor);
  for (int number : SourceLinesContaining(relative_path, needle)) {
    if (number > anchors.front()) return number;
  }
  throw std::runtime_error(relative_path + ": no " + needle + " after " + anchor);
}

}  // namespace report_testing
