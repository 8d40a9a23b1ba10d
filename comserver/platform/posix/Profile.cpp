// Profile files ("ini" files) with the reading and writing rules of the Windows private
// profile functions, so that a configuration file behaves the same on both systems.
// Writing edits the file line by line: whatever is not the written key stays as it was,
// byte for byte, line ends included.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Platform.h"
#include "platform/posix/Internal.h"

namespace tamrik::platform {

namespace {

constexpr std::string_view kBlanks = " \t\r\v\f";

std::string_view Trim(std::string_view s) {
  size_t first = s.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  size_t last = s.find_last_not_of(kBlanks);
  return s.substr(first, last - first + 1);
}

std::string_view TrimRight(std::string_view s) {
  size_t last = s.find_last_not_of(kBlanks);
  return last == std::string_view::npos ? std::string_view{} : s.substr(0, last + 1);
}

char Lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool SameName(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (Lower(a[i]) != Lower(b[i])) return false;
  }
  return true;
}

std::string_view StripQuotes(std::string_view v) {
  if (v.size() >= 2 && (v.front() == '"' || v.front() == '\'') && v.back() == v.front()) {
    return v.substr(1, v.size() - 2);
  }
  return v;
}

// One line of the file: its text and its line end ("\n", "\r\n" or nothing on the last).
struct Line {
  std::string text;
  std::string end;
};

enum class Kind { Other, Section, Key };

struct Parsed {
  Kind kind = Kind::Other;
  std::string_view name;   // section or key name, trimmed
  std::string_view value;  // key value, trimmed, quotes still on
  size_t valueStart = 0;   // offset in the line just behind the '='
};

Parsed Classify(const Line& line, bool first) {
  std::string_view text = line.text;
  if (first && text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3);
  Parsed p;
  std::string_view body = Trim(text);
  if (body.empty() || body.front() == ';') return p;
  if (body.front() == '[') {
    body.remove_prefix(1);
    p.kind = Kind::Section;
    p.name = Trim(body.substr(0, body.find(']')));
    return p;
  }
  size_t eq = text.find('=');
  if (eq == std::string_view::npos) return p;
  p.kind = Kind::Key;
  p.name = Trim(text.substr(0, eq));
  p.value = Trim(text.substr(eq + 1));
  // A rewritten value keeps the blanks the file has between '=' and the value.
  size_t valueStart = text.find_first_not_of(" \t", eq + 1);
  if (valueStart == std::string_view::npos) valueStart = text.size();
  p.valueStart = static_cast<size_t>(text.data() - line.text.data()) + valueStart;
  return p;
}

std::vector<Line> SplitLines(const std::string& data) {
  std::vector<Line> lines;
  size_t pos = 0;
  while (pos < data.size()) {
    size_t nl = data.find('\n', pos);
    Line line;
    if (nl == std::string::npos) {
      line.text = data.substr(pos);
      pos = data.size();
    } else {
      size_t textEnd = (nl > pos && data[nl - 1] == '\r') ? nl - 1 : nl;
      line.text = data.substr(pos, textEnd - pos);
      line.end = data.substr(textEnd, nl + 1 - textEnd);
      pos = nl + 1;
    }
    lines.push_back(std::move(line));
  }
  return lines;
}

// Reads the whole file. Nothing when it cannot be read; *missing tells whether that is
// because it does not exist.
std::optional<std::string> ReadWhole(const std::string& path, bool* missing) {
  *missing = false;
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    *missing = (errno == ENOENT);
    return std::nullopt;
  }
  std::string data;
  char chunk[8192];
  for (;;) {
    ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n < 0) {
      if (errno == EINTR) continue;
      ::close(fd);
      return std::nullopt;
    }
    if (n == 0) break;
    data.append(chunk, static_cast<size_t>(n));
  }
  ::close(fd);
  return data;
}

std::vector<Line> LoadLines(const std::string& path) {
  bool missing = false;
  std::optional<std::string> data = ReadWhole(path, &missing);
  return data ? SplitLines(*data) : std::vector<Line>{};
}

// Index of the first header of section, or lines.size().
size_t FindSection(const std::vector<Line>& lines, std::string_view section) {
  for (size_t i = 0; i < lines.size(); ++i) {
    Parsed p = Classify(lines[i], i == 0);
    if (p.kind == Kind::Section && SameName(p.name, section)) return i;
  }
  return lines.size();
}

// Index of the line after the last one of the section whose header is at header.
size_t SectionEnd(const std::vector<Line>& lines, size_t header) {
  size_t i = header + 1;
  while (i < lines.size() && Classify(lines[i], false).kind != Kind::Section) ++i;
  return i;
}

size_t FindKey(const std::vector<Line>& lines, size_t header, size_t end, std::string_view key) {
  for (size_t i = header + 1; i < end; ++i) {
    Parsed p = Classify(lines[i], false);
    if (p.kind == Kind::Key && SameName(p.name, key)) return i;
  }
  return end;
}

// Fills buffer with names, each followed by a zero, and one more zero at the end; a list
// that does not fit is cut and closed with two zeros, and then size - 2 is returned.
uint32_t CopyNameList(const std::vector<std::string_view>& names, char* buffer, uint32_t size) {
  if (size < 2) {
    buffer[0] = '\0';
    return 0;
  }
  uint32_t pos = 0;
  for (std::string_view name : names) {
    if (static_cast<uint64_t>(pos) + name.size() + 1 >= size) {
      // The names already copied may reach past the cut itself.
      size_t fit = pos < size - 2 ? size - 2 - pos : 0;
      if (fit > 0) std::memcpy(buffer + pos, name.data(), fit);
      buffer[size - 2] = '\0';
      buffer[size - 1] = '\0';
      return size - 2;
    }
    if (!name.empty()) std::memcpy(buffer + pos, name.data(), name.size());
    pos += static_cast<uint32_t>(name.size());
    buffer[pos++] = '\0';
  }
  buffer[pos] = '\0';
  if (pos == 0) buffer[1] = '\0';
  return pos;
}

uint32_t CopyString(std::string_view value, char* buffer, uint32_t size) {
  size_t n = value.size() < size - 1 ? value.size() : size - 1;
  if (n > 0) std::memcpy(buffer, value.data(), n);
  buffer[n] = '\0';
  return static_cast<uint32_t>(n);
}

// Writes data to path so that path holds either its old content or all of the new one,
// never a part: the data goes to a new file in the same directory that then replaces the
// old one.
bool ReplaceFile(const std::string& path, const std::string& data) {
  static std::atomic<uint32_t> counter{0};
  size_t slash = path.rfind('/');
  std::string dir = slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
  struct stat old {};
  bool hadOld = ::stat(path.c_str(), &old) == 0;

  std::string temp;
  int fd = -1;
  for (int attempt = 0; attempt < 100 && fd < 0; ++attempt) {
    temp = dir + ".profile-" + std::to_string(::getpid()) + "-" + std::to_string(counter++) + ".tmp";
    fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0 && errno != EEXIST) return false;
  }
  if (fd < 0) return false;

  bool ok = true;
  if (hadOld) {
    // Keep who may read the file; failing here (not the owner) only loses that.
    (void)::fchmod(fd, old.st_mode & 07777);
    (void)::fchown(fd, old.st_uid, old.st_gid);
  }
  size_t written = 0;
  while (ok && written < data.size()) {
    ssize_t n = ::write(fd, data.data() + written, data.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) ok = false;
    else written += static_cast<size_t>(n);
  }
  if (ok && ::fsync(fd) != 0) ok = false;
  if (::close(fd) != 0) ok = false;
  if (ok && ::rename(temp.c_str(), path.c_str()) != 0) ok = false;
  if (!ok) ::unlink(temp.c_str());
  return ok;
}

// The file that a write must replace: the target of a symbolic link rather than the link.
std::string WriteTarget(const std::string& path) {
  std::string target = path;
  for (int depth = 0; depth < 40; ++depth) {
    struct stat st {};
    if (::lstat(target.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return target;
    std::string link(static_cast<size_t>(st.st_size > 0 ? st.st_size : PATH_MAX), '\0');
    ssize_t n = ::readlink(target.c_str(), link.data(), link.size());
    if (n < 0) return target;
    link.resize(static_cast<size_t>(n));
    if (!link.empty() && link.front() != '/') {
      size_t slash = target.rfind('/');
      if (slash != std::string::npos) link.insert(0, target, 0, slash + 1);
    }
    target = link;
  }
  return target;
}

std::mutex& WriteMutex() {
  static std::mutex mutex;
  return mutex;
}

bool HasLineBreak(std::string_view s) { return s.find_first_of("\r\n") != std::string_view::npos; }

}  // namespace

namespace posix {

std::optional<std::string> ProfileValue(std::string_view section, std::string_view key,
                                        const std::string& file) {
  std::vector<Line> lines = LoadLines(file);
  section = Trim(section);
  key = Trim(key);
  size_t header = FindSection(lines, section);
  if (header == lines.size()) return std::nullopt;
  size_t end = SectionEnd(lines, header);
  size_t k = FindKey(lines, header, end, key);
  if (k == end) return std::nullopt;
  return std::string(StripQuotes(Classify(lines[k], false).value));
}

}  // namespace posix

uint32_t ProfileGetInt(const char* section, const char* key, int32_t def, const std::string& file) {
  if (section == nullptr || key == nullptr) return static_cast<uint32_t>(def);
  std::optional<std::string> value = posix::ProfileValue(section, key, file);
  if (!value || value->empty()) return static_cast<uint32_t>(def);
  std::string_view v = Trim(*value);
  bool negative = false;
  if (!v.empty() && (v.front() == '+' || v.front() == '-')) {
    negative = v.front() == '-';
    v.remove_prefix(1);
  }
  // Wraps like the 32-bit accumulator of the Windows conversion.
  uint32_t result = 0;
  for (char c : v) {
    if (c < '0' || c > '9') break;
    result = result * 10u + static_cast<uint32_t>(c - '0');
  }
  return negative ? 0u - result : result;
}

uint32_t ProfileGetString(const char* section, const char* key, const char* def, char* buffer,
                          uint32_t size, const std::string& file) {
  if (buffer == nullptr || size == 0) return 0;
  std::vector<Line> lines = LoadLines(file);

  // A missing section or key name asks for the list of names, as on Windows.
  if (section == nullptr) {
    std::vector<std::string_view> names;
    for (size_t i = 0; i < lines.size(); ++i) {
      Parsed p = Classify(lines[i], i == 0);
      if (p.kind == Kind::Section) names.push_back(p.name);
    }
    return CopyNameList(names, buffer, size);
  }
  size_t header = FindSection(lines, Trim(section));
  if (key == nullptr) {
    std::vector<std::string_view> names;
    if (header < lines.size()) {
      size_t end = SectionEnd(lines, header);
      for (size_t i = header + 1; i < end; ++i) {
        Parsed p = Classify(lines[i], false);
        if (p.kind == Kind::Key) names.push_back(p.name);
      }
    }
    return CopyNameList(names, buffer, size);
  }

  std::string_view fallback = TrimRight(def != nullptr ? def : "");
  if (header == lines.size()) return CopyString(fallback, buffer, size);
  size_t end = SectionEnd(lines, header);
  size_t k = FindKey(lines, header, end, Trim(key));
  if (k == end) return CopyString(fallback, buffer, size);
  return CopyString(StripQuotes(Classify(lines[k], false).value), buffer, size);
}

bool ProfileWriteString(const char* section, const char* key, const char* value,
                        const std::string& file) {
  if (section == nullptr || file.empty()) return false;
  std::string_view sectionName = Trim(section);
  std::string_view keyName = key != nullptr ? Trim(key) : std::string_view{};
  // Names and values that would break the line structure cannot be stored.
  if (sectionName.find(']') != std::string_view::npos || HasLineBreak(sectionName)) return false;
  if (key != nullptr && (keyName.empty() || keyName.find('=') != std::string_view::npos ||
                         HasLineBreak(keyName) || keyName.front() == ';' ||
                         keyName.front() == '[')) {
    return false;
  }
  if (value != nullptr && HasLineBreak(value)) return false;

  std::lock_guard lock(WriteMutex());
  std::string path = WriteTarget(file);
  bool missing = false;
  std::optional<std::string> data = ReadWhole(path, &missing);
  if (!data && !missing) return false;  // unreadable: rewriting would lose its content
  std::vector<Line> lines = data ? SplitLines(*data) : std::vector<Line>{};

  std::string newline = "\n";
  for (const Line& line : lines) {
    if (!line.end.empty()) {
      newline = line.end;
      break;
    }
  }
  auto terminate = [&](size_t i) {
    if (lines[i].end.empty()) lines[i].end = newline;
  };

  size_t header = FindSection(lines, sectionName);
  if (key == nullptr) {
    // No key: the whole section goes, as on Windows.
    if (header == lines.size()) return true;
    lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(header),
                lines.begin() + static_cast<std::ptrdiff_t>(SectionEnd(lines, header)));
  } else if (header == lines.size()) {
    if (value == nullptr) return true;
    if (!lines.empty()) terminate(lines.size() - 1);
    lines.push_back({"[" + std::string(sectionName) + "]", newline});
    lines.push_back({std::string(keyName) + "=" + value, newline});
  } else {
    size_t end = SectionEnd(lines, header);
    size_t k = FindKey(lines, header, end, keyName);
    if (k < end) {
      if (value == nullptr) {
        lines.erase(lines.begin() + static_cast<std::ptrdiff_t>(k));
      } else {
        Parsed p = Classify(lines[k], false);
        lines[k].text = lines[k].text.substr(0, p.valueStart) + value;
      }
    } else {
      if (value == nullptr) return true;
      // Behind the section's last non-blank line, so that blank lines that separate it
      // from the next section stay where they are.
      size_t last = end - 1;
      while (last > header && Trim(lines[last].text).empty()) --last;
      terminate(last);
      lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(last + 1),
                   Line{std::string(keyName) + "=" + value, newline});
    }
  }

  std::string out;
  for (const Line& line : lines) {
    out += line.text;
    out += line.end;
  }
  return ReplaceFile(path, out);
}

}  // namespace tamrik::platform
