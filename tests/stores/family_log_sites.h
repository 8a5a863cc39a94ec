// Checks that a log line of a store family names its own site: the family's
// source file, a line of that file where a reporting shape writes the line's
// format, inside the exported function whose full signature the line
// carries. An operator who follows such a line to its source lands in the
// function that wrote it, not in a helper template.
//
// Needs DRAVINHOLD_SOURCE_DIR, the repository root, to read the sources.
#pragma once

#include <gtest/gtest.h>

#include <cctype>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "support/log_capture.h"

namespace family_sites {

// Where a family's line must come from.
struct FamilySite {
  // The family's source, relative to the repository root.
  std::string file;
  // How the function text starts: result type, qualified name, "(".
  std::string signature;
  // The format (or fixed message) that the reporting shape at the site
  // writes, as it stands in the source.
  std::string format;
};

// The lines of a source file of this repository, numbered from 1 (index 0
// is empty).
inline std::vector<std::string> SourceLines(const std::string& relative_path) {
  std::ifstream in(std::string(DRAVINHOLD_SOURCE_DIR) + "/" + relative_path);
  std::vector<std::string> lines(1);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// The statement that starts at "number": its lines up to the one that ends
// with ";", joined, with adjacent string literals merged into one.
inline std::string StatementAt(const std::vector<std::string>& lines, int number) {
  std::string statement;
  for (size_t i = number; i < lines.size(); ++i) {
    statement += lines[i] + "\n";
    if (!lines[i].empty() && lines[i].back() == ';') break;
  }
  return std::regex_replace(statement, std::regex("\"\\s*\""), "");
}

// The nearest line at or above "number" that opens a definition at the
// left margin: the head of the function that holds the line.
inline std::string EnclosingDefinition(const std::vector<std::string>& lines, int number) {
  for (int i = number; i > 0; --i) {
    const std::string& line = lines[i];
    if (!line.empty() && (std::isalpha(static_cast<unsigned char>(line[0])) != 0)) return line;
  }
  return std::string();
}

// The reporting shapes a site may use, with the logger the family names.
inline bool StartsAReport(const std::string& statement, const std::string& logger_class) {
  const std::string trimmed = statement.substr(statement.find_first_not_of(' '));
  return trimmed.rfind("LOG_LINE(" + logger_class + ",", 0) == 0 ||
         trimmed.rfind("CHECK_LOGGED(" + logger_class + ",", 0) == 0;
}

// "line" came from the POCO logger "logger" (reached in the source through
// "logger_class"), at "priority", with the text "text", and was written at
// "site".
inline ::testing::AssertionResult WrittenAt(const testing_support::LoggedLine& line,
                                            const std::string& logger,
                                            const std::string& logger_class, int priority,
                                            const std::string& text, const FamilySite& site) {
  if (line.text != text) {
    return ::testing::AssertionFailure()
           << "text is \"" << line.text << "\", expected \"" << text << "\"";
  }
  if (line.priority != priority) {
    return ::testing::AssertionFailure() << "\"" << text << "\" has priority " << line.priority;
  }
  if (line.source != logger) {
    return ::testing::AssertionFailure() << "\"" << text << "\" came from logger " << line.source;
  }
  if (line.file != site.file) {
    return ::testing::AssertionFailure() << "\"" << text << "\" names file " << line.file << ":"
                                         << line.line << ", expected " << site.file;
  }
  if (line.function.rfind(site.signature, 0) != 0 ||
      line.function.find(" [with ") != std::string::npos) {
    return ::testing::AssertionFailure() << "\"" << text << "\" names function \"" << line.function
                                         << "\", expected \"" << site.signature << "...\"";
  }
  const std::vector<std::string> lines = SourceLines(site.file);
  if (line.line <= 0 || line.line >= static_cast<int>(lines.size())) {
    return ::testing::AssertionFailure()
           << "\"" << text << "\" names line " << line.line << ", outside " << site.file;
  }
  const std::string statement = StatementAt(lines, line.line);
  if (!StartsAReport(statement, logger_class) ||
      statement.find("\"" + site.format + "\"") == std::string::npos) {
    return ::testing::AssertionFailure()
           << site.file << ":" << line.line << " does not write \"" << site.format << "\" through "
           << logger_class << ": " << statement;
  }
  // The name without its namespace and result: what the definition's head
  // holds.
  const size_t name_start = site.signature.rfind("persistence::") + 13;
  const std::string name = site.signature.substr(name_start);
  const std::string head = EnclosingDefinition(lines, line.line);
  if (head.find(name) == std::string::npos) {
    return ::testing::AssertionFailure()
           << site.file << ":" << line.line << " lies in the definition \"" << head
           << "\", expected one of " << name;
  }
  return ::testing::AssertionSuccess();
}

}  // namespace family_sites
