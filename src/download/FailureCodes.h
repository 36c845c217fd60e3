// Failure codes that reach the host through onDownloadFailed.
#ifndef ZRX2DSTICKER_DOWNLOAD_FAILURECODES_H_
#define ZRX2DSTICKER_DOWNLOAD_FAILURECODES_H_

namespace zrx {

constexpr int kFailEasyInit = -10000;       // curl_easy_init returned null
constexpr int kFailDirectory = -10001;      // stickerDir missing and not made
constexpr int kFailSetOptions = -10002;     // configuring the handle failed
constexpr int kFailOpenFile = -10003;       // the local file didn't open
constexpr int kFailUnzip = -10004;          // extraction failed or stopped
constexpr int kFailAddHandle = -10005;      // curl_multi_add_handle failed
constexpr int kFailTimeLimit = -10006;      // transfer passed timeoutSeconds
constexpr int kFailCurlBase = -100000;      // minus the CURLcode

}  // namespace zrx

#endif  // ZRX2DSTICKER_DOWNLOAD_FAILURECODES_H_
