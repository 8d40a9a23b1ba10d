// Runs the module's registry script, in the notation of the usual in-process server
// registrar: a tree of keys under a root, each key optionally with a default value (= s
// 'text' or = d 'number'), named values (val Name = s 'text'), and the flags NoRemove (the
// key stays on removal) and ForceRemove (the key is removed before it is written anew).
#include <windows.h>

#include <memory>
#include <string>
#include <vector>

#include "Module.h"

namespace tamrik::server {

namespace {

struct Value {
  std::wstring type;  // "s" or "d"
  std::wstring text;
};

struct Node {
  std::wstring name;
  bool noRemove = false;
  bool forceRemove = false;
  bool isValue = false;  // a named value ("val") rather than a key
  bool hasValue = false;
  Value value;
  std::vector<Node> children;
};

class Parser {
 public:
  explicit Parser(std::wstring text) : text_(std::move(text)) {}

  bool Next(std::wstring* token) {
    while (pos_ < text_.size() && iswspace(text_[pos_])) ++pos_;
    if (pos_ >= text_.size()) return false;
    const wchar_t c = text_[pos_];
    // A brace alone is a block; a brace that starts a word is part of a key name such as
    // {5A1E7D32-...}.
    if ((c == L'{' || c == L'}') && (pos_ + 1 >= text_.size() || iswspace(text_[pos_ + 1]))) {
      *token = std::wstring(1, c);
      ++pos_;
      return true;
    }
    if (c == L'=') {
      *token = L"=";
      ++pos_;
      return true;
    }
    if (c == L'\'') {
      std::wstring quoted = L"'";
      ++pos_;
      while (pos_ < text_.size()) {
        if (text_[pos_] == L'\'') {
          if (pos_ + 1 < text_.size() && text_[pos_ + 1] == L'\'') {
            quoted.push_back(L'\'');
            pos_ += 2;
            continue;
          }
          ++pos_;
          *token = quoted;
          return true;
        }
        quoted.push_back(text_[pos_++]);
      }
      return false;  // unterminated text
    }
    size_t start = pos_;
    while (pos_ < text_.size() && !iswspace(text_[pos_]) && text_[pos_] != L'=') ++pos_;
    *token = text_.substr(start, pos_ - start);
    return true;
  }

  // Keys and values up to the closing brace of the current block.
  bool Block(std::vector<Node>* nodes) {
    std::wstring token;
    while (Next(&token)) {
      if (token == L"}") return true;
      Node node;
      for (;;) {
        if (_wcsicmp(token.c_str(), L"NoRemove") == 0) {
          node.noRemove = true;
        } else if (_wcsicmp(token.c_str(), L"ForceRemove") == 0) {
          node.forceRemove = true;
        } else if (_wcsicmp(token.c_str(), L"val") == 0) {
          node.isValue = true;
        } else {
          break;
        }
        if (!Next(&token)) return false;
      }
      node.name = Unquote(token);
      size_t mark = pos_;
      std::wstring after;
      bool more = Next(&after);
      if (more && after == L"=") {
        std::wstring type, text;
        if (!Next(&type) || !Next(&text) || text.empty() || text[0] != L'\'') return false;
        node.hasValue = true;
        node.value = {type, text.substr(1)};
        mark = pos_;
        more = Next(&after);
      }
      if (more && after == L"{") {
        if (!Block(&node.children)) return false;
      } else {
        pos_ = mark;
      }
      nodes->push_back(std::move(node));
    }
    return false;  // the script ended inside a block
  }

  bool Script(std::vector<std::pair<HKEY, std::vector<Node>>>* roots) {
    std::wstring token;
    while (Next(&token)) {
      HKEY root = RootKey(token);
      std::wstring brace;
      if (root == nullptr || !Next(&brace) || brace != L"{") return false;
      std::vector<Node> nodes;
      if (!Block(&nodes)) return false;
      roots->emplace_back(root, std::move(nodes));
    }
    return true;
  }

 private:
  static std::wstring Unquote(const std::wstring& token) {
    return !token.empty() && token[0] == L'\'' ? token.substr(1) : token;
  }

  static HKEY RootKey(const std::wstring& name) {
    if (name == L"HKCR" || name == L"HKEY_CLASSES_ROOT") return HKEY_CLASSES_ROOT;
    if (name == L"HKCU" || name == L"HKEY_CURRENT_USER") return HKEY_CURRENT_USER;
    if (name == L"HKLM" || name == L"HKEY_LOCAL_MACHINE") return HKEY_LOCAL_MACHINE;
    return nullptr;
  }

  std::wstring text_;
  size_t pos_ = 0;
};

std::wstring Substitute(std::wstring text, const std::wstring& module) {
  const std::wstring placeholder = L"%MODULE%";
  for (size_t at = text.find(placeholder); at != std::wstring::npos; at = text.find(placeholder, at + module.size())) {
    text.replace(at, placeholder.size(), module);
  }
  return text;
}

LSTATUS SetValue(HKEY key, const wchar_t* name, const Value& value, const std::wstring& module) {
  if (value.type == L"d") {
    const DWORD number = DWORD(wcstoul(value.text.c_str(), nullptr, 0));
    return RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number), sizeof number);
  }
  const std::wstring text = Substitute(value.text, module);
  return RegSetValueExW(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()),
                        DWORD((text.size() + 1) * sizeof(wchar_t)));
}

LSTATUS Register(HKEY parent, const std::vector<Node>& nodes, const std::wstring& module) {
  for (const Node& node : nodes) {
    if (node.isValue) {
      if (!node.hasValue) continue;
      LSTATUS status = SetValue(parent, node.name.c_str(), node.value, module);
      if (status != ERROR_SUCCESS) return status;
      continue;
    }
    if (node.forceRemove) {
      LSTATUS gone = RegDeleteTreeW(parent, node.name.c_str());
      if (gone != ERROR_SUCCESS && gone != ERROR_FILE_NOT_FOUND) return gone;
      (void)RegDeleteKeyW(parent, node.name.c_str());
    }
    HKEY key = nullptr;
    LSTATUS status = RegCreateKeyExW(parent, node.name.c_str(), 0, nullptr, 0, KEY_READ | KEY_WRITE, nullptr,
                                     &key, nullptr);
    if (status != ERROR_SUCCESS) return status;
    if (node.hasValue) status = SetValue(key, nullptr, node.value, module);
    if (status == ERROR_SUCCESS) status = Register(key, node.children, module);
    RegCloseKey(key);
    if (status != ERROR_SUCCESS) return status;
  }
  return ERROR_SUCCESS;
}

LSTATUS Unregister(HKEY parent, const std::vector<Node>& nodes) {
  for (const Node& node : nodes) {
    if (node.isValue) continue;  // goes with its key
    if (!node.noRemove) {
      LSTATUS status = RegDeleteTreeW(parent, node.name.c_str());
      if (status == ERROR_SUCCESS) status = RegDeleteKeyW(parent, node.name.c_str());
      if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) return status;
      continue;
    }
    HKEY key = nullptr;
    LSTATUS status = RegOpenKeyExW(parent, node.name.c_str(), 0, KEY_READ | KEY_WRITE, &key);
    if (status == ERROR_FILE_NOT_FOUND) continue;
    if (status != ERROR_SUCCESS) return status;
    status = Unregister(key, node.children);
    RegCloseKey(key);
    if (status != ERROR_SUCCESS) return status;
  }
  return ERROR_SUCCESS;
}

}  // namespace

HRESULT RunRegistryScript(UINT id, bool registering) {
  HINSTANCE module = ModuleInstance();
  HRSRC resource = FindResourceW(module, MAKEINTRESOURCEW(id), L"REGISTRY");
  if (resource == nullptr) return HRESULT_FROM_WIN32(GetLastError());
  HGLOBAL loaded = LoadResource(module, resource);
  const DWORD size = SizeofResource(module, resource);
  const char* bytes = loaded != nullptr ? static_cast<const char*>(LockResource(loaded)) : nullptr;
  if (bytes == nullptr || size == 0) return E_FAIL;

  const int wide = MultiByteToWideChar(CP_ACP, 0, bytes, int(size), nullptr, 0);
  std::wstring text(size_t(wide), L'\0');
  MultiByteToWideChar(CP_ACP, 0, bytes, int(size), text.data(), wide);

  std::vector<std::pair<HKEY, std::vector<Node>>> roots;
  if (!Parser(std::move(text)).Script(&roots)) return E_UNEXPECTED;
  const std::wstring path = ModulePath();
  if (path.empty()) return HRESULT_FROM_WIN32(GetLastError());
  for (const auto& [root, nodes] : roots) {
    const LSTATUS status = registering ? Register(root, nodes, path) : Unregister(root, nodes);
    if (status != ERROR_SUCCESS) return HRESULT_FROM_WIN32(status);
  }
  return S_OK;
}

}  // namespace tamrik::server
