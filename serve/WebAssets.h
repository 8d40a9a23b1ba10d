// The files of the service's web page (serve/web/), compiled into the program so that it serves
// its page itself, with nothing to install beside it and nothing fetched from elsewhere. The
// definitions are generated at build time by cmake/WebAssets.cmake.
#pragma once

#include <string_view>

namespace tamrik::serve {

struct WebAsset {
  std::string_view path;         // as requested: "/index.html", "/app.js"
  std::string_view contentType;  // "text/html; charset=utf-8", ...
  std::string_view body;
};

// The asset served at `path`; "/" is index.html. nullptr when there is none.
const WebAsset* FindWebAsset(std::string_view path);

}  // namespace tamrik::serve
