// MD5 throughput: the digest text of a URL, as the parser makes it for an
// item without a name, and the bulk rate over 1 MiB.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "list/Md5.h"

namespace {

void BM_Md5DigestTextOfUrl(benchmark::State& state) {
  const std::string url = "https://cdn.example.test/stickers/2d/100001.zip";
  Md5 md5;
  for (auto _ : state) benchmark::DoNotOptimize(md5.digestText(url));
  state.SetBytesProcessed(state.iterations() *
                          static_cast<int64_t>(url.size()));
}
BENCHMARK(BM_Md5DigestTextOfUrl);

void BM_Md5Bulk1MiB(benchmark::State& state) {
  std::vector<uint8_t> data(1 << 20);
  for (std::size_t i = 0; i < data.size(); ++i) {
    data[i] = static_cast<uint8_t>(i * 2654435761u >> 24);
  }
  Md5 md5;
  uint8_t digest[16];
  for (auto _ : state) {
    md5.init();
    md5.update(data.data(), data.size());
    md5.finish(digest);
    benchmark::DoNotOptimize(digest);
  }
  state.SetBytesProcessed(state.iterations() *
                          static_cast<int64_t>(data.size()));
}
BENCHMARK(BM_Md5Bulk1MiB);

}  // namespace
