# Writes OUTPUT, a C++ source that holds every file of DATA_DIR as bytes: msplat carries the shipped
# defaults in itself, so that they are there wherever the tool is installed, moved or emulated.
file(GLOB files RELATIVE ${DATA_DIR} ${DATA_DIR}/*)
list(SORT files)
set(arrays "")
set(table "")
set(index 0)
foreach(name IN LISTS files)
  file(READ ${DATA_DIR}/${name} hex HEX)
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
  string(REGEX REPLACE "(0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,)"
                       "\\1\n    " bytes "${bytes}")
  string(APPEND arrays "const unsigned char kFile${index}[] = {\n    ${bytes}0};\n")
  string(APPEND table "    {\"${name}\", kFile${index}, sizeof kFile${index} - 1},\n")
  math(EXPR index "${index} + 1")
endforeach()
set(content "// Made from data/ by embed.cmake at build time.\n#include \"shipped.h\"\n\nnamespace msplat {\nnamespace {\n\n${arrays}\n}  // namespace\n\nconst ShippedFile kShippedFiles[] = {\n${table}    {nullptr, nullptr, 0},\n};\n\n}  // namespace msplat\n")
# Rewritten only when it changes, so that an unchanged data/ compiles nothing again.
if(EXISTS ${OUTPUT})
  file(READ ${OUTPUT} old)
endif()
if(NOT "${old}" STREQUAL "${content}")
  file(WRITE ${OUTPUT} "${content}")
endif()
