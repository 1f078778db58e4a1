// Strings side by side with std::string (and std::string_view for views).
//
// Every binary linking libzoutils allocates through the library's arena, because the
// library replaces the global operator new: std::string below allocates there too.
#include <benchmark/benchmark.h>

#include <charconv>
#include <string>
#include <string_view>
#include <vector>

#include "utils/string.h"

using Utils::String;

namespace {

std::string makeText(std::size_t n) {
    std::string t;
    t.reserve(n);
    for (std::size_t i = 0; i < n; ++i) t += static_cast<char>('a' + (i * 7) % 26);
    return t;
}

// --- copy -------------------------------------------------------------------
void BM_Copy_String(benchmark::State& st) {
    String src(makeText(static_cast<std::size_t>(st.range(0))).c_str());
    for (auto _ : st) {
        String c(src);
        benchmark::DoNotOptimize(c);
    }
}
void BM_Copy_StdString(benchmark::State& st) {
    std::string src = makeText(static_cast<std::size_t>(st.range(0)));
    for (auto _ : st) {
        std::string c(src);
        benchmark::DoNotOptimize(c);
    }
}
BENCHMARK(BM_Copy_String)->Arg(8)->Arg(22)->Arg(64)->Arg(256)->Arg(4096);
BENCHMARK(BM_Copy_StdString)->Arg(8)->Arg(22)->Arg(64)->Arg(256)->Arg(4096);

// --- one character written after a copy (copy-on-write pays here) -------------
void BM_CopyThenWrite_String(benchmark::State& st) {
    String src(makeText(static_cast<std::size_t>(st.range(0))).c_str());
    for (auto _ : st) {
        String c(src);
        c[1] = 'X';
        benchmark::DoNotOptimize(c);
    }
}
void BM_CopyThenWrite_StdString(benchmark::State& st) {
    std::string src = makeText(static_cast<std::size_t>(st.range(0)));
    for (auto _ : st) {
        std::string c(src);
        c[1] = 'X';
        benchmark::DoNotOptimize(c);
    }
}
BENCHMARK(BM_CopyThenWrite_String)->Arg(22)->Arg(256)->Arg(4096);
BENCHMARK(BM_CopyThenWrite_StdString)->Arg(22)->Arg(256)->Arg(4096);

// --- substring: a view, and a view copied into its own string -------------------
void BM_SubView_SubString(benchmark::State& st) {
    String src(makeText(4096).c_str());
    for (auto _ : st) {
        Utils::SubString v = src(100, 64);
        benchmark::DoNotOptimize(v);
    }
}
void BM_SubView_StringView(benchmark::State& st) {
    std::string src = makeText(4096);
    std::string_view sv(src);
    for (auto _ : st) {
        std::string_view v = sv.substr(100, 64);
        benchmark::DoNotOptimize(v);
    }
}
void BM_SubCopy_String(benchmark::State& st) {
    String src(makeText(4096).c_str());
    for (auto _ : st) {
        String v(src(100, 64));
        benchmark::DoNotOptimize(v);
    }
}
void BM_SubCopy_StdString(benchmark::State& st) {
    std::string src = makeText(4096);
    for (auto _ : st) {
        std::string v = src.substr(100, 64);
        benchmark::DoNotOptimize(v);
    }
}
BENCHMARK(BM_SubView_SubString);
BENCHMARK(BM_SubView_StringView);
BENCHMARK(BM_SubCopy_String);
BENCHMARK(BM_SubCopy_StdString);

// --- append ----------------------------------------------------------------------
void BM_AppendChars_String(benchmark::State& st) {
    for (auto _ : st) {
        String s;
        for (int i = 0; i < 1000; ++i) s += static_cast<char>('a' + i % 26);
        benchmark::DoNotOptimize(s);
    }
    st.SetItemsProcessed(st.iterations() * 1000);
}
void BM_AppendChars_StdString(benchmark::State& st) {
    for (auto _ : st) {
        std::string s;
        for (int i = 0; i < 1000; ++i) s += static_cast<char>('a' + i % 26);
        benchmark::DoNotOptimize(s);
    }
    st.SetItemsProcessed(st.iterations() * 1000);
}
void BM_AppendTexts_String(benchmark::State& st) {
    for (auto _ : st) {
        String s;
        for (int i = 0; i < 100; ++i) s += "some words, ";
        benchmark::DoNotOptimize(s);
    }
    st.SetItemsProcessed(st.iterations() * 100);
}
void BM_AppendTexts_StdString(benchmark::State& st) {
    for (auto _ : st) {
        std::string s;
        for (int i = 0; i < 100; ++i) s += "some words, ";
        benchmark::DoNotOptimize(s);
    }
    st.SetItemsProcessed(st.iterations() * 100);
}
BENCHMARK(BM_AppendChars_String);
BENCHMARK(BM_AppendChars_StdString);
BENCHMARK(BM_AppendTexts_String);
BENCHMARK(BM_AppendTexts_StdString);

// --- numbers: 100 appends of 1..7-digit values -------------------------------------
void BM_AppendULong_String(benchmark::State& st) {
    for (auto _ : st) {
        String s;
        for (unsigned long i = 0; i < 100; ++i) s += i * 99991;
        benchmark::DoNotOptimize(s);
    }
    st.SetItemsProcessed(st.iterations() * 100);
}
void BM_AppendULong_StdToChars(benchmark::State& st) {
    for (auto _ : st) {
        std::string s;
        for (unsigned long i = 0; i < 100; ++i) {
            char buf[24];
            auto r = std::to_chars(buf, buf + sizeof buf, i * 99991);
            s.append(buf, static_cast<std::size_t>(r.ptr - buf));
        }
        benchmark::DoNotOptimize(s);
    }
    st.SetItemsProcessed(st.iterations() * 100);
}
BENCHMARK(BM_AppendULong_String);
BENCHMARK(BM_AppendULong_StdToChars);

// --- tokenising a request line into its fields -------------------------------------
constexpr char kRequestLine[] = "GET /api/v2/orders/317 200 48213 5123 10.2.117.43 \"Mozilla/5.0 (X11; Linux)\"\n";
void BM_Tokens_StringTokSpan(benchmark::State& st) {
    String line(kRequestLine);
    for (auto _ : st) {
        unsigned long pos = 0, start = 0, end = 0, n = 0;
        while (line.tokSpan(" \n", pos, start, end)) {
            n += end - start;
            pos = end;
        }
        benchmark::DoNotOptimize(n);
    }
}
void BM_Tokens_StdFindFirstOf(benchmark::State& st) {
    std::string line(kRequestLine);
    for (auto _ : st) {
        std::size_t pos = 0, n = 0;
        while (true) {
            std::size_t s = line.find_first_not_of(" \n", pos);
            if (s == std::string::npos) break;
            std::size_t e = line.find_first_of(" \n", s + 1);
            if (e == std::string::npos) e = line.size();
            n += e - s;
            pos = e;
        }
        benchmark::DoNotOptimize(n);
    }
}
BENCHMARK(BM_Tokens_StringTokSpan);
BENCHMARK(BM_Tokens_StdFindFirstOf);

// --- searches over a 4096-character text ----------------------------------------
void BM_IndexChar_String(benchmark::State& st) {
    std::string t = makeText(4096);
    t[4000] = '#';
    String s(t.c_str());
    for (auto _ : st) benchmark::DoNotOptimize(s.index('#', 0));
}
void BM_IndexChar_StdString(benchmark::State& st) {
    std::string s = makeText(4096);
    s[4000] = '#';
    for (auto _ : st) benchmark::DoNotOptimize(s.find('#', 0));
}
void BM_IndexPattern_String(benchmark::State& st) {
    std::string t = makeText(4096);
    t.replace(4000, 6, "needle");
    String s(t.c_str());
    for (auto _ : st) benchmark::DoNotOptimize(s.index("needle", 0));
}
void BM_IndexPattern_StdString(benchmark::State& st) {
    std::string s = makeText(4096);
    s.replace(4000, 6, "needle");
    for (auto _ : st) benchmark::DoNotOptimize(s.find("needle", 0));
}
BENCHMARK(BM_IndexChar_String);
BENCHMARK(BM_IndexChar_StdString);
BENCHMARK(BM_IndexPattern_String);
BENCHMARK(BM_IndexPattern_StdString);

// --- substitute: 4096 characters, every 16th position holds "ab" -> "xyz" ---------
std::string substituteText() {
    std::string t = makeText(4096);
    for (std::size_t i = 0; i + 2 <= t.size(); i += 16) t.replace(i, 2, "ab");
    return t;
}
void BM_Substitute_String(benchmark::State& st) {
    String s(substituteText().c_str());
    for (auto _ : st) {
        String r = s.substitute("ab", "xyz");
        benchmark::DoNotOptimize(r);
    }
}
void BM_Substitute_StdString(benchmark::State& st) {
    std::string s = substituteText();
    for (auto _ : st) {
        // The usual std::string idiom: build the result by find and append.
        std::string r;
        r.reserve(s.size() + s.size() / 16 + 16);
        std::size_t p = 0;
        for (std::size_t i; (i = s.find("ab", p)) != std::string::npos; p = i + 2) {
            r.append(s, p, i - p);
            r += "xyz";
        }
        r.append(s, p, std::string::npos);
        benchmark::DoNotOptimize(r);
    }
}
BENCHMARK(BM_Substitute_String);
BENCHMARK(BM_Substitute_StdString);

// --- many copies of few long strings: 4 texts of 4096, 1000 copies held at once ----
void BM_ManyCopies_String(benchmark::State& st) {
    std::vector<String> originals;
    for (int i = 0; i < 4; ++i) originals.emplace_back((makeText(4096) + char('0' + i)).c_str());
    std::vector<String> held(1000);
    for (auto _ : st) {
        for (std::size_t i = 0; i < held.size(); ++i) held[i] = originals[i % 4];
        unsigned long total = 0;
        for (String const& s : held) total += s.length() + static_cast<unsigned char>(s[4096]);
        benchmark::DoNotOptimize(total);
        for (String& s : held) s.purge();
    }
}
void BM_ManyCopies_StdString(benchmark::State& st) {
    std::vector<std::string> originals;
    for (int i = 0; i < 4; ++i) originals.emplace_back(makeText(4096) + char('0' + i));
    std::vector<std::string> held(1000);
    for (auto _ : st) {
        for (std::size_t i = 0; i < held.size(); ++i) held[i] = originals[i % 4];
        unsigned long total = 0;
        for (std::string const& s : held) total += s.size() + static_cast<unsigned char>(s[4096]);
        benchmark::DoNotOptimize(total);
        for (std::string& s : held) std::string().swap(s);
    }
}
BENCHMARK(BM_ManyCopies_String);
BENCHMARK(BM_ManyCopies_StdString);

}  // namespace

BENCHMARK_MAIN();
