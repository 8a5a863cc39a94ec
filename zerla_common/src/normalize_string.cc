#include "zerla_common/normalize_string.h"

namespace {

bool IsBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

}  // namespace

std::string zerla_normalize_string(const std::string& text, bool /*lower_case*/) {
  std::string::size_type begin = 0;
  std::string::size_type end = text.size();
  while (begin < end && IsBlank(text[begin])) ++begin;
  while (end > begin && IsBlank(text[end - 1])) --end;
  std::string result = text.substr(begin, end - begin);
  for (char& c : result) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return result;
}
