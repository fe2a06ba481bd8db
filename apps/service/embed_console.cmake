# Writes console_assets.cpp: the console's files as byte arrays behind consoleAsset().
# Run as: cmake -DSOURCE_DIR=<console dir> -DOUTPUT=<file.cpp> -P embed_console.cmake
# path|file|media type; every file is UTF-8 text.
set(assets
  "/|index.html|text/html"
  "/index.html|index.html|text/html"
  "/console.css|console.css|text/css"
  "/console.js|console.js|text/javascript")
set(out "// Generated from apps/service/console by embed_console.cmake; do not edit.\n")
string(APPEND out "#include \"apps/service/console_assets.hpp\"\n\n#include <array>\n\nnamespace zephlo::service {\nnamespace {\n")
set(table "")
set(index 0)
foreach(entry IN LISTS assets)
  string(REPLACE "|" ";" parts "${entry}")
  list(GET parts 0 path)
  list(GET parts 1 file)
  list(GET parts 2 type)
  file(READ "${SOURCE_DIR}/${file}" hex HEX)
  string(LENGTH "${hex}" hexLength)
  math(EXPR size "${hexLength} / 2")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${hex}")
  string(APPEND out "constexpr char kAsset${index}[] = {${bytes} 0};\n")
  string(APPEND table "    ConsoleAsset{\"${path}\", \"${type}; charset=utf-8\", std::string_view(kAsset${index}, ${size})},\n")
  math(EXPR index "${index} + 1")
endforeach()
string(APPEND out "const std::array<ConsoleAsset, ${index}> kAssets = {{\n${table}}};\n}  // namespace\n\n")
string(APPEND out "const ConsoleAsset* consoleAsset(std::string_view path) {\n  for (const ConsoleAsset& asset : kAssets)\n    if (asset.path == path) return &asset;\n  return nullptr;\n}\n\n}  // namespace zephlo::service\n")
file(WRITE "${OUTPUT}.tmp" "${out}")
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.tmp")
