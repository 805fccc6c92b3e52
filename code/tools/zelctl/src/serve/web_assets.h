// The files of the pages, built into the program (the CMake step embed_assets.cmake writes
// their bytes into a source file): zelctl serve needs no file and no network to serve them.
#pragma once

#include <cstddef>
#include <string_view>

namespace zelctl::serve {

struct web_asset {
  std::string_view path;  // "/assets/app.js"
  std::string_view content_type;
  std::string_view bytes;
};

// The asset served at `path`, or null.
const web_asset* find_web_asset(std::string_view path);

}  // namespace zelctl::serve
