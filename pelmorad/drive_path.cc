#include "pelmorad/drive_path.h"

#include <cctype>

#include "pelmorad/win_error.h"

namespace pelmorad {
namespace {

constexpr std::size_t kMaxNameBytes = 255;

bool IsSeparator(char c) { return c == '\\' || c == '/'; }

bool IsBadNameCharacter(char c) {
  auto byte = static_cast<unsigned char>(c);
  if (byte < 0x20 || byte == 0x7F) return true;
  std::string_view bad = "<>:\"|?*";
  return bad.find(c) != std::string_view::npos;
}

// Adds one name to `path`; returns the error number or 0.
int32_t AddName(std::string_view name, DrivePath& path) {
  if (name.empty() || name == ".") return kSuccess;
  if (name == "..") {
    if (path.parts.empty()) return kAccessDenied;
    path.parts.pop_back();
    return kSuccess;
  }
  if (name.size() > kMaxNameBytes) return kNameTooLong;
  for (char c : name) {
    if (IsBadNameCharacter(c)) return kInvalidName;
  }
  path.parts.emplace_back(name);
  return kSuccess;
}

}  // namespace

std::string DrivePath::Relative() const {
  if (parts.empty()) return ".";
  std::string out;
  for (const std::string& part : parts) {
    if (!out.empty()) out += '/';
    out += part;
  }
  return out;
}

std::string DrivePath::Wire() const {
  std::string out{drive, ':'};
  if (parts.empty()) return out + '\\';
  for (const std::string& part : parts) {
    out += '\\';
    out += part;
  }
  return out;
}

std::string DrivePath::Name() const { return parts.empty() ? std::string() : parts.back(); }

DrivePath DrivePath::Parent() const {
  DrivePath parent = *this;
  if (!parent.parts.empty()) parent.parts.pop_back();
  return parent;
}

DrivePath DrivePath::Child(std::string_view name) const {
  DrivePath child = *this;
  child.parts.emplace_back(name);
  return child;
}

bool DrivePath::Contains(const DrivePath& other) const {
  if (other.drive != drive || other.parts.size() < parts.size()) return false;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (parts[i] != other.parts[i]) return false;
  }
  return true;
}

PathResult ParseDrivePath(std::string_view text, std::size_t max_length) {
  PathResult result;
  if (text.size() > max_length) {
    result.error = kNameTooLong;
    return result;
  }
  if (text.size() < 2 || !std::isalpha(static_cast<unsigned char>(text[0])) || text[1] != ':') {
    result.error = kInvalidName;
    return result;
  }
  DrivePath path;
  path.drive = static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
  std::string_view rest = text.substr(2);
  while (!rest.empty()) {
    std::size_t end = 0;
    while (end < rest.size() && !IsSeparator(rest[end])) ++end;
    if (int32_t error = AddName(rest.substr(0, end), path); error != kSuccess) {
      result.error = error;
      return result;
    }
    rest.remove_prefix(end < rest.size() ? end + 1 : end);
  }
  result.path = std::move(path);
  return result;
}

}  // namespace pelmorad
