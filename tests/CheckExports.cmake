# Fails when the shared library exports a symbol that is not public API.
execute_process(COMMAND nm -DC --defined-only ${LIBRARY}
                OUTPUT_VARIABLE symbols RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIBRARY}")
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
