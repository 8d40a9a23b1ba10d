// The page compiled into the program: every file of serve/web is served, byte for byte, with the
// content type its kind needs, and the page refers only to files the program has.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>

#include "WebAssets.h"

namespace fs = std::filesystem;
using tamrik::serve::FindWebAsset;
using tamrik::serve::WebAsset;

namespace {

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// Path as requested ("/app.js") -> contents on disk.
std::map<std::string, std::string> WebFiles() {
  std::map<std::string, std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator(TAMRIK_WEB_DIR)) {
    if (!entry.is_regular_file()) continue;
    files["/" + fs::relative(entry.path(), TAMRIK_WEB_DIR).generic_string()] = ReadFile(entry.path());
  }
  return files;
}

}  // namespace

TEST(WebAssets, EveryFileOfThePageIsServedWithItsContentType) {
  const std::map<std::string, std::string> expectedType = {
      {".html", "text/html; charset=utf-8"}, {".js", "text/javascript; charset=utf-8"},
      {".css", "text/css; charset=utf-8"},   {".png", "image/png"},
      {".svg", "image/svg+xml"},             {".json", "application/json"}};
  const auto files = WebFiles();
  ASSERT_GE(files.size(), 3u);
  for (const auto& [path, contents] : files) {
    SCOPED_TRACE(path);
    const WebAsset* asset = FindWebAsset(path);
    ASSERT_NE(asset, nullptr);
    EXPECT_EQ(asset->path, path);
    EXPECT_EQ(asset->body, contents);
    const auto type = expectedType.find(fs::path(path).extension().string());
    ASSERT_NE(type, expectedType.end()) << "a file of a kind the page does not use";
    EXPECT_EQ(asset->contentType, type->second);
  }

  // The page's address is its index.
  const WebAsset* root = FindWebAsset("/");
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(root, FindWebAsset("/index.html"));
  EXPECT_NE(root->body.find("<!doctype html>"), std::string_view::npos);

  // Nothing beside the page's files, and no way out of its folder.
  for (const char* path : {"", "index.html", "/nosuch.js", "/../CMakeLists.txt", "/web/index.html", "/INDEX.HTML"}) {
    EXPECT_EQ(FindWebAsset(path), nullptr) << path;
  }
}

// The page works without the internet: every file it loads is one the program serves, and none
// of its files names an address elsewhere.
TEST(WebAssets, ThePageLoadsOnlyFilesTheProgramServes) {
  const WebAsset* index = FindWebAsset("/");
  ASSERT_NE(index, nullptr);
  const std::string html(index->body);
  const std::regex reference(R"re((?:src|href)="([^"#:]+)")re");
  int references = 0;
  for (auto it = std::sregex_iterator(html.begin(), html.end(), reference); it != std::sregex_iterator(); ++it) {
    const std::string file = (*it)[1].str();
    EXPECT_NE(FindWebAsset("/" + file), nullptr) << "index.html loads " << file;
    ++references;
  }
  EXPECT_GE(references, 2) << "index.html loads its script and its style sheet";

  const std::regex elsewhere(R"re((https?:)?//[A-Za-z0-9.-]+\.[A-Za-z]{2,}[/"'])re");
  for (const auto& [path, contents] : WebFiles()) {
    EXPECT_FALSE(std::regex_search(contents, elsewhere)) << path << " names an address elsewhere";
  }
}
