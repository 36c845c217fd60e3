# Fails when the shared library exports a symbol that is not public API, or
# lacks one. A DLL's export table is read with OBJDUMP and its names
# demangled with CXXFILT (mingw-w64 mangles as on other systems), so both
# kinds of library are held against the same lists.
if(LIBRARY MATCHES "\\.dll$")
  execute_process(COMMAND ${OBJDUMP} -p ${LIBRARY}
                  OUTPUT_VARIABLE dump RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "objdump failed on ${LIBRARY}")
  endif()
  # The names follow the "[Ordinal/Name Pointer] Table" line, one a line
  # as "[   n] name", up to an empty line.
  string(REGEX MATCH "\\[Ordinal/Name Pointer\\] Table[^\n]*\n([^\n]+\n)*"
         table "${dump}")
  string(REGEX MATCHALL "\\[ *[0-9]+\\] [^\n]+" entries "${table}")
  set(mangled "")
  foreach(entry IN LISTS entries)
    string(REGEX REPLACE "^\\[ *[0-9]+\\] " "" entry "${entry}")
    string(APPEND mangled "${entry}\n")
  endforeach()
  file(WRITE ${LIBRARY}.exports.txt "${mangled}")
  execute_process(COMMAND ${CXXFILT}
                  INPUT_FILE ${LIBRARY}.exports.txt
                  OUTPUT_VARIABLE symbols RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0 OR symbols STREQUAL "")
    message(FATAL_ERROR "no exports read from ${LIBRARY}")
  endif()
else()
  execute_process(COMMAND nm -DC --defined-only ${LIBRARY}
                  OUTPUT_VARIABLE symbols RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "nm failed on ${LIBRARY}")
  endif()
endif()
string(REPLACE "\n" ";" lines "${symbols}")
set(bad "")
foreach(line IN LISTS lines)
  if(line STREQUAL "")
    continue()
  endif()
  string(REGEX REPLACE "^[0-9a-f]+ [A-Za-z] " "" name "${line}")
  if(name MATCHES "^(ZRXRegisterLogBaseManager|ZRXReleaseLogBaseManager|ZRXSetLogBaseManagerUniqueKey|ZRXSetLogLevel|ZRXEnableLog|ZRXDisableLog|ZRXLogIsEnabled|ZRXLogCallback|ZRXLogCallbackModel)\\(")
    continue()
  endif()
  if(name MATCHES "^(typeinfo|typeinfo name|vtable) for (ZRX2DStickerDownloadListener|ZRX2DStickerResItem|ZRX2DStickerResList|ZRResourceDownloadManager)$")
    continue()
  endif()
  if(name MATCHES "^(ZRX2DStickerDownloadListener|ZRX2DStickerResItem|ZRX2DStickerResList|ZRResourceDownloadManager)::")
    continue()
  endif()
  list(APPEND bad "${name}")
endforeach()
# Every public function and class must be there too.
foreach(required
    "ZRXRegisterLogBaseManager(" "ZRXReleaseLogBaseManager(" "ZRXSetLogBaseManagerUniqueKey("
    "ZRXSetLogLevel(" "ZRXEnableLog(" "ZRXDisableLog(" "ZRXLogIsEnabled("
    "ZRXLogCallback(" "ZRXLogCallbackModel("
    "ZRResourceDownloadManager::ZRX_parse2DStickerResource("
    "ZRResourceDownloadManager::setStickerResList("
    "ZRResourceDownloadManager::ZRX_set2DStickerDownloadPath("
    "ZRResourceDownloadManager::ZRX_start2DStickerDownloadAllSticker("
    "ZRResourceDownloadManager::ZRX_start2DStickerDownloadSticker("
    "ZRResourceDownloadManager::ZRX_stop2DStickerDownloadSticker("
    "ZRX2DStickerResItem::ZRX2DStickerResItem(" "ZRX2DStickerResList::ZRX2DStickerResList("
    "typeinfo for ZRX2DStickerDownloadListener")
  string(FIND "${symbols}" "${required}" at)
  if(at EQUAL -1)
    list(APPEND bad "missing: ${required}")
  endif()
endforeach()
if(bad)
  string(REPLACE ";" "\n  " text "${bad}")
  message(FATAL_ERROR "symbols exported beyond the public API:\n  ${text}")
endif()
message(STATUS "exports: public API only")
