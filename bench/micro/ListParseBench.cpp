// The parse of a 100000-item sticker list beside a bare RapidJSON parse of
// the same text: what the records, the naming rule (with its MD5) and the
// code-page conversion add to the JSON work alone.
#include <benchmark/benchmark.h>
#include <rapidjson/document.h>

#include <string>
#include <utility>

#include "list/ZRX2DStickerResouceListParser.h"

namespace {

constexpr int kListItems = 100000;

// A list as a catalogue would serve it: a third of the items are archives
// named by the digest of their URL (type 0), a third archives unpacked
// under their own name (type 1), a third plain files (no unzip_type).
const std::string& hundredThousandItemList() {
  static const std::string text = [] {
    std::string json = "[";
    for (int i = 0; i < kListItems; ++i) {
      const std::string id = std::to_string(100000 + i);
      if (i > 0) json += ',';
      json += "{\"resId\":\"" + id +
              "\",\"url\":\"https://cdn.example.test/stickers/2d/" + id;
      switch (i % 3) {
        case 0:
          json += ".zip\",\"unzip_type\":0}";
          break;
        case 1:
          json += ".zip\",\"name\":\"sticker_" + id +
                  "\",\"unzip_type\":1,\"ext\":\".zip\"}";
          break;
        default:
          json += ".png\",\"name\":\"sticker_" + id + "\",\"ext\":\".png\"}";
      }
    }
    return json + "]";
  }();
  return text;
}

void BM_ParseList100k(benchmark::State& state) {
  const std::string& text = hundredThousandItemList();
  ZRX2DStickerResouceListParser parser;
  for (auto _ : state) {
    // The text is taken by value: a host that hands its own string over
    // (std::move) pays no copy, and neither does this loop.
    state.PauseTiming();
    std::string copy = text;
    state.ResumeTiming();
    ZRX2DStickerResList* list =
        parser.parseWithString(std::move(copy), nullptr);
    benchmark::DoNotOptimize(list);
    // Releasing the list is the manager's business at the next parse; it is
    // kept out of the parse's time.
    state.PauseTiming();
    for (ZRX2DStickerResItem* item : list->items) delete item;
    delete list;
    state.ResumeTiming();
  }
  state.SetBytesProcessed(state.iterations() *
                          static_cast<int64_t>(text.size()));
  state.SetItemsProcessed(state.iterations() * kListItems);
}
BENCHMARK(BM_ParseList100k)->Unit(benchmark::kMillisecond);

// The floor: Document::Parse with the default flags, not in place, strings
// copied, as the parser's own RapidJSON step does.
void BM_RapidJsonParse100k(benchmark::State& state) {
  const std::string& text = hundredThousandItemList();
  for (auto _ : state) {
    rapidjson::Document document;
    document.Parse(text.c_str());
    benchmark::DoNotOptimize(document.IsArray());
  }
  state.SetBytesProcessed(state.iterations() *
                          static_cast<int64_t>(text.size()));
  state.SetItemsProcessed(state.iterations() * kListItems);
}
BENCHMARK(BM_RapidJsonParse100k)->Unit(benchmark::kMillisecond);

}  // namespace
