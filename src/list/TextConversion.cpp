#include "list/TextConversion.h"

#include <climits>
#include <cstddef>
#include <memory>

#include "platform/Platform.h"

namespace {

// A zero-filled buffer of `size` elements, on the stack when small: most
// texts are short file names, and these run once per parsed sticker.
template <typename Char, std::size_t kInline>
class ZeroedBuffer {
 public:
  explicit ZeroedBuffer(std::size_t size)
      : heap_(size > kInline ? new Char[size]() : nullptr),
        data_(heap_ ? heap_.get() : inline_) {
    if (!heap_) {
      for (std::size_t i = 0; i < size; ++i) inline_[i] = Char();
    }
  }
  ZeroedBuffer(const ZeroedBuffer&) = delete;
  ZeroedBuffer& operator=(const ZeroedBuffer&) = delete;
  Char* data() { return data_; }

 private:
  Char inline_[kInline];
  std::unique_ptr<Char[]> heap_;
  Char* data_;
};

// Length of the text in the first `count` elements of `text` up to its first
// NUL (the buffers are zero-filled, so that is where the text ends).
template <typename Char>
std::size_t textLength(const Char* text, int count) {
  std::size_t n = 0;
  while (n < static_cast<std::size_t>(count) && text[n] != Char()) ++n;
  return n;
}

}  // namespace

int utf8ToWide(const std::string& source, std::u16string& target) {
  if (source.empty()) {
    target.clear();
    return 0;
  }
  // The platform call counts in int; one wide character for each byte is
  // always enough, one more keeps a NUL behind the text.
  if (source.size() > static_cast<std::size_t>(INT_MAX - 1)) return -1;
  const int length = static_cast<int>(source.size());
  ZeroedBuffer<char16_t, 256> buffer(static_cast<std::size_t>(length) + 1);
  const int written = zrx::platform::multiByteToWide(source.data(), length,
                                                     buffer.data(), length + 1);
  if (written <= 0) return -1;
  target.assign(buffer.data(), textLength(buffer.data(), written));
  return 0;
}

int wideToAnsi(const std::u16string& source, std::string& target) {
  if (source.empty()) {
    target.clear();
    return 0;
  }
  // Six bytes for each wide character cover every code page's longest
  // sequence, one more keeps a NUL behind the text.
  if (source.size() > static_cast<std::size_t>((INT_MAX - 1) / 6)) return -1;
  const int length = static_cast<int>(source.size());
  const int size = 6 * length + 1;
  ZeroedBuffer<char, 1024> buffer(static_cast<std::size_t>(size));
  const int written = zrx::platform::wideToMultiByte(source.data(), length,
                                                     buffer.data(), size);
  if (written <= 0) return -1;
  target.assign(buffer.data(), textLength(buffer.data(), written));
  return 0;
}
