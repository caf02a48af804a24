#ifndef KORCOMMON_TOOLS_WEB_ASSETS_H_
#define KORCOMMON_TOOLS_WEB_ASSETS_H_

#include <cstddef>

namespace korcommon::cli {

// One file of the page (tools/web), embedded into the tool at build time so that the page
// needs nothing from elsewhere.
struct WebAsset {
  const char* name;  // the file name, e.g. "app.js"
  const unsigned char* bytes;
  size_t size;
};

// Generated from tools/web by cmake/EmbedFiles.cmake.
extern const WebAsset kWebAssets[];
extern const size_t kWebAssetCount;

}  // namespace korcommon::cli

#endif  // KORCOMMON_TOOLS_WEB_ASSETS_H_
