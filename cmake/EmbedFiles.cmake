# Run as a script: cmake -DOUTPUT=file.cpp -DINPUTS="a;b" -P EmbedFiles.cmake
# Writes OUTPUT, a C++ source defining korcommon::cli::kWebAssets (see tools/web_assets.h):
# the bytes of every file of INPUTS under its file name.
set(arrays "")
set(table "")
set(index 0)
foreach(input IN LISTS INPUTS)
  file(READ "${input}" hex HEX)
  string(LENGTH "${hex}" digits)
  math(EXPR size "${digits} / 2")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
  get_filename_component(name "${input}" NAME)
  # A trailing zero keeps the array non-empty for an empty file; it is not counted.
  string(APPEND arrays "const unsigned char kAsset${index}[] = {${bytes}0};\n")
  string(APPEND table "    {\"${name}\", kAsset${index}, ${size}},\n")
  math(EXPR index "${index} + 1")
endforeach()

file(WRITE "${OUTPUT}.tmp"
  "// Generated at build time from the files of tools/web; do not edit.\n"
  "#include \"web_assets.h\"\n\n"
  "namespace korcommon::cli {\nnamespace {\n${arrays}}  // namespace\n\n"
  "const WebAsset kWebAssets[] = {\n${table}};\n"
  "const size_t kWebAssetCount = ${index};\n\n"
  "}  // namespace korcommon::cli\n")
file(RENAME "${OUTPUT}.tmp" "${OUTPUT}")
