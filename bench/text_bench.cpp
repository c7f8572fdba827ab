// Text family against its peers, in one run:
//   escapeData vs a straightforward table-driven escaper (and, for scale, the
//   obvious ostringstream loop);
//   String copy vs std::shared_ptr copy (copy and drop, one and two threads).
#include <benchmark/benchmark.h>

#include <cctype>
#include <clocale>
#include <cstring>
#include <iomanip>
#include <memory>
#include <sstream>
#include <string>

#include "ratio_reporter.h"
#include "zelkit3/escape.h"
#include "zelkit3/string.h"

namespace {

// ---- Inputs.

std::string makeInput(int kind, std::size_t size) {
  std::string text;
  unsigned state = 2024;
  auto next = [&] {
    state = state * 1103515245u + 12345u;
    return (state >> 16) & 0x7FFF;
  };
  const char prose[] = "The quick brown fox jumps over the lazy dog, 42 times; ";
  while (text.size() < size) {
    switch (kind) {
      case 0:  // prose: mostly plain, an escaped byte now and then
        text += prose[next() % (sizeof prose - 1)];
        if (next() % 64 == 0) text += "&+%"[next() % 3];
        break;
      case 1:  // a query string: many '&' and '+'
        text += "name=J+Doe&q=a%20b&page=2&"[next() % 26];
        break;
      case 2:  // UTF-8 prose: two-byte letters among ASCII
        if (next() % 4 == 0) {
          text += "\xC3\xA9";
        } else {
          text += prose[next() % (sizeof prose - 1)];
        }
        break;
      default:  // binary: every byte but 0
        text += static_cast<char>(1 + next() % 255);
        break;
    }
  }
  text.resize(size);
  return text;
}

const char* const kKindNames[] = {"prose", "query", "utf8", "binary"};

// ---- Peers.

// The straightforward table-driven escaper: a 256-entry table for the "C"
// locale, one pass, the result reserved at the input's length.
class TableEscaper {
 public:
  TableEscaper() {
    for (int b = 0; b < 256; ++b) mEscape[b] = b < 0x20 || b > 0x7E || b == '%' || b == '&' || b == '+';
  }
  std::string escape(const char* text) const {
    static const char hex[] = "0123456789ABCDEF";
    std::string out;
    if (text == nullptr) return out;
    out.reserve(std::strlen(text));
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p != 0; ++p) {
      if (mEscape[*p]) {
        out += '%';
        out += hex[*p >> 4];
        out += hex[*p & 15];
      } else {
        out += static_cast<char>(*p);
      }
    }
    return out;
  }

 private:
  bool mEscape[256];
};

std::string streamEscape(const char* text) {
  std::ostringstream out;
  out << std::hex << std::uppercase << std::setfill('0');
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p != 0; ++p) {
    const bool escape = !std::isalnum(static_cast<signed char>(*p)) &&
                        (*p < 0x20 || *p > 0x7E || *p == '%' || *p == '&' || *p == '+');
    if (escape) {
      out << '%' << std::setw(2) << static_cast<unsigned>(*p);
    } else {
      out << static_cast<char>(*p);
    }
  }
  return out.str();
}

void setEscapeLabel(benchmark::State& state) {
  state.SetLabel(kKindNames[state.range(0)]);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(1));
}

void BM_Escape_zelkit3(benchmark::State& state) {
  std::setlocale(LC_ALL, "C");
  const std::string input = makeInput(static_cast<int>(state.range(0)), static_cast<std::size_t>(state.range(1)));
  zelkit3::CEscapeDataHelper* helper = zelkit3::CEscapeDataHelper::getInst();
  for (auto _ : state) benchmark::DoNotOptimize(helper->escapeData(input.c_str()));
  setEscapeLabel(state);
}

void BM_Escape_table(benchmark::State& state) {
  const std::string input = makeInput(static_cast<int>(state.range(0)), static_cast<std::size_t>(state.range(1)));
  const TableEscaper escaper;
  for (auto _ : state) benchmark::DoNotOptimize(escaper.escape(input.c_str()));
  setEscapeLabel(state);
}

void BM_Escape_ostringstream(benchmark::State& state) {
  const std::string input = makeInput(static_cast<int>(state.range(0)), static_cast<std::size_t>(state.range(1)));
  for (auto _ : state) benchmark::DoNotOptimize(streamEscape(input.c_str()));
  setEscapeLabel(state);
}

void escapeArgs(benchmark::internal::Benchmark* b) {
  for (int kind = 0; kind < 4; ++kind)
    for (int size : {64, 4096}) b->Args({kind, size});
}

// Names are "<case>/ours" and "<case>/<peer>", so that the ratio table after
// the results reads ours / peer, as in every other benchmark here.
BENCHMARK(BM_Escape_zelkit3)->Name("escape/ours")->Apply(escapeArgs);
BENCHMARK(BM_Escape_table)->Name("escape/table")->Apply(escapeArgs);
BENCHMARK(BM_Escape_ostringstream)->Name("escape/ostringstream")->Apply(escapeArgs);

// ---- Copies: copy and drop, so that both sides pay an increment and a
// decrement. With two threads both copy the same shared object.

void BM_Copy_String(benchmark::State& state) {
  static zelkit3::String shared;
  if (state.thread_index() == 0) shared = zelkit3::String::fromWideChar(L"shared text");
  for (auto _ : state) {
    zelkit3::String copy(shared);
    benchmark::DoNotOptimize(copy);
  }
  if (state.thread_index() == 0) shared = zelkit3::String();
}

void BM_Copy_shared_ptr(benchmark::State& state) {
  static std::shared_ptr<std::wstring> shared;
  if (state.thread_index() == 0) shared = std::make_shared<std::wstring>(L"shared text");
  for (auto _ : state) {
    std::shared_ptr<std::wstring> copy(shared);
    benchmark::DoNotOptimize(copy);
  }
  if (state.thread_index() == 0) shared.reset();
}

void BM_Copy_EmptyString(benchmark::State& state) {
  const zelkit3::String empty;
  for (auto _ : state) {
    zelkit3::String copy(empty);
    benchmark::DoNotOptimize(copy);
  }
}

void BM_Copy_empty_shared_ptr(benchmark::State& state) {
  const std::shared_ptr<std::wstring> empty;
  for (auto _ : state) {
    std::shared_ptr<std::wstring> copy(empty);
    benchmark::DoNotOptimize(copy);
  }
}

BENCHMARK(BM_Copy_String)->Name("copy/ours")->Threads(1)->Threads(2);
BENCHMARK(BM_Copy_shared_ptr)->Name("copy/shared_ptr")->Threads(1)->Threads(2);
BENCHMARK(BM_Copy_EmptyString)->Name("copy_empty/ours");
BENCHMARK(BM_Copy_empty_shared_ptr)->Name("copy_empty/shared_ptr");

}  // namespace

ZK3_BENCHMARK_MAIN();
