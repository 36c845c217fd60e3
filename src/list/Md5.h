// MD5 message digest (RFC 1321), and the 32-digit uppercase digest text that
// names a sticker's directory and file.
//
// Used on the thread of a parse only; one object serves one digest at a time.
#ifndef ZRX2DSTICKER_LIST_MD5_H_
#define ZRX2DSTICKER_LIST_MD5_H_

#include <cstddef>
#include <cstdint>
#include <string>

class Md5 {
 public:
  // The state is not set up until init().
  Md5() = default;

  void init();
  void update(const void* data, std::size_t length);
  // Writes the 16 digest bytes and clears the whole state to zero.
  void finish(uint8_t digest[16]);

  // init, update with `text`, finish; the digest as 32 uppercase hex digits.
  std::string digestText(const std::string& text);

 private:
  void transform(const uint8_t block[64]);

  uint32_t state_[4];
  uint64_t length_;  // message length in bytes so far
  uint8_t buffer_[64];
};

#endif  // ZRX2DSTICKER_LIST_MD5_H_
