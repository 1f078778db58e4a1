// Strings: a stream of String / SubString / StringChar operations against a
// std::string model, with the representation and view verifiers after each step.
// Copies and views taken along the way must keep the text they saw (copy on
// write). Texts are drawn from a small alphabet without NUL, so that the C-string
// semantics of the searches and the model's agree.
#include <algorithm>
#include <cctype>
#include <cstring>
#include <string>

#include "fuzz_check.h"
#include "utils/string.h"

namespace {

using Utils::String;
using Utils::SubString;
constexpr unsigned long npos = String::npos;

char const kAlphabet[] = "ab AB\tc.-z";

std::string word(FuzzedDataProvider& in, size_t max) {
    size_t n = in.ConsumeIntegralInRange<size_t>(0, max);
    std::string s;
    for (size_t i = 0; i < n && in.remaining_bytes(); ++i)
        s += kAlphabet[in.ConsumeIntegralInRange<size_t>(0, sizeof kAlphabet - 2)];
    return s;
}

void same(String const& s, std::string const& m, char const* what) {
    FUZZ_CHECK(s.length() == m.size() && std::memcmp(s.text(), m.data(), m.size()) == 0 && s.text()[m.size()] == 0,
               "%s: \"%.60s\" (%lu), model \"%.60s\" (%zu)", what, s.text(), s.length(), m.c_str(), m.size());
    if (s.representation()) {
        char const* fault = s.representation()->verify();
        FUZZ_CHECK(!fault, "%s: %s", what, fault);
    }
}

unsigned long modelFind(std::string const&, size_t r) { return r == std::string::npos ? npos : r; }

void pad(std::string& m, unsigned long n) {
    if (m.size() < n) m.append(n - m.size(), ' ');
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    FuzzedDataProvider in(data, size);
    String s;
    std::string m;
    bool null = true;  // tracked where an operation says what it does with a null string
    String copy;
    std::string copyModel;
    SubString view;
    std::string viewModel;

    for (int step = 0; step < 200 && in.remaining_bytes() > 0; ++step) {
        int op = in.ConsumeIntegralInRange<int>(0, 24);
        switch (op) {
            case 0: {
                std::string w = word(in, 20);
                s += w.c_str();
                m += w;
                null = false;
                break;
            }
            case 1: {
                char c = kAlphabet[in.ConsumeIntegralInRange<size_t>(0, sizeof kAlphabet - 2)];
                s += c;
                m += c;
                null = false;
                break;
            }
            case 2: {
                long n = in.ConsumeIntegral<long>();
                s += n;
                m += std::to_string(n);
                null = false;
                break;
            }
            case 3: {
                std::string w = word(in, 20);
                s.append(w.data(), w.size());
                m += w;
                null = false;
                break;
            }
            case 4: {  // replace
                std::string w = word(in, 12);
                unsigned long from = in.ConsumeIntegralInRange<unsigned long>(0, w.size());
                unsigned long n = in.ConsumeIntegralInRange<unsigned long>(0, w.size() - from);
                unsigned long pos = in.ConsumeIntegralInRange<unsigned long>(0, m.size() + 8);
                s.replace(w.c_str(), n, from, pos);
                pad(m, pos);
                m.replace(pos, std::min<size_t>(n, m.size() - pos), w.substr(from, n));
                null = false;
                break;
            }
            case 5: {  // insert
                std::string w = word(in, 12);
                unsigned long from = in.ConsumeIntegralInRange<unsigned long>(0, w.size());
                unsigned long n = in.ConsumeIntegralInRange<unsigned long>(0, w.size() - from);
                unsigned long pos = in.ConsumeIntegralInRange<unsigned long>(0, m.size() + 8);
                s.insert(w.c_str(), n, from, pos);
                pad(m, pos);
                m.insert(pos, w.substr(from, n));
                null = false;
                break;
            }
            case 6: {  // remove
                unsigned long pos = in.ConsumeIntegralInRange<unsigned long>(0, m.size() + 4);
                unsigned long n = in.ConsumeBool() ? npos : in.ConsumeIntegralInRange<unsigned long>(0, 10);
                s.remove(pos, n);
                if (pos < m.size()) m.erase(pos, n);
                null = false;
                break;
            }
            case 7:
                s.toUpper();
                for (char& c : m) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
                break;
            case 8:
                s.toLower();
                for (char& c : m) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
                break;
            case 9: {
                unsigned long n = in.ConsumeIntegral<unsigned long>();
                s.rotateLeft(n);
                if (!m.empty()) std::rotate(m.begin(), m.begin() + static_cast<long>(n % m.size()), m.end());
                break;
            }
            case 10: {
                s.trim();
                size_t a = m.find_first_not_of(" \t\n\v\f\r");
                if (a == std::string::npos)
                    m.clear();
                else
                    m = m.substr(a, m.find_last_not_of(" \t\n\v\f\r") - a + 1);
                break;
            }
            case 11: {
                unsigned long n = in.ConsumeIntegralInRange<unsigned long>(0, m.size() + 20);
                s.expandTo(n);
                pad(m, n);
                null = false;
                break;
            }
            case 12: {  // the character proxy
                unsigned long i = in.ConsumeIntegralInRange<unsigned long>(0, m.size() + 4);
                char c = kAlphabet[in.ConsumeIntegralInRange<size_t>(0, sizeof kAlphabet - 2)];
                if (null) break;  // the proxy's behaviour on a null string is not pinned here
                s[i] = c;
                if (i < m.size())
                    m[i] = c;
                else
                    pad(m, i);
                break;
            }
            case 13: {  // a copy that must keep its text
                copy = s;
                copyModel = m;
                break;
            }
            case 14: {  // a view that must keep its text
                unsigned long pos = in.ConsumeIntegralInRange<unsigned long>(0, m.size() + 2);
                unsigned long len = in.ConsumeIntegralInRange<unsigned long>(0, m.size() + 2);
                view = SubString(s, pos, len);
                viewModel = pos < m.size() ? m.substr(pos, len) : std::string();
                if (!null) {
                    FUZZ_CHECK(view.length() == viewModel.size(), "view length %lu, model %zu", view.length(),
                               viewModel.size());
                    FUZZ_CHECK(view.start() == (pos < m.size() ? pos : 0), "view start");
                }
                break;
            }
            case 15: {  // searches
                char c = kAlphabet[in.ConsumeIntegralInRange<size_t>(0, sizeof kAlphabet - 2)];
                unsigned long pos = in.ConsumeIntegralInRange<unsigned long>(0, m.size() + 2);
                unsigned long want = pos >= m.size() ? npos : modelFind(m, m.find(c, pos));
                FUZZ_CHECK(s.index(c, pos) == want, "index('%c', %lu) = %lu, model %lu", c, pos, s.index(c, pos), want);
                FUZZ_CHECK(s.rindex(c) == modelFind(m, m.rfind(c)), "rindex");
                std::string pat = word(in, 3);
                want = pos >= m.size() ? npos : modelFind(m, m.find(pat, pos));
                FUZZ_CHECK(s.index(pat.c_str(), pos) == want, "index(\"%s\", %lu) = %lu, model %lu", pat.c_str(), pos,
                           s.index(pat.c_str(), pos), want);
                std::string set = word(in, 3);
                want = pos >= m.size() || set.empty() ? npos : modelFind(m, m.find_first_of(set, pos));
                FUZZ_CHECK(s.indexChar(set.c_str(), pos) == want, "indexChar");
                unsigned long rpos = in.ConsumeBool() ? npos : pos;
                want = m.empty() || set.empty() ? npos
                                                : modelFind(m, m.find_last_of(set, rpos >= m.size() ? m.size() - 1 : rpos));
                FUZZ_CHECK(s.rindexChar(set.c_str(), rpos) == want, "rindexChar(\"%s\", %lu) = %lu, model %lu",
                           set.c_str(), rpos, s.rindexChar(set.c_str(), rpos), want);
                unsigned long k = in.ConsumeIntegralInRange<unsigned long>(0, 4);
                unsigned long nth = 0;
                if (k) {
                    size_t at = std::string::npos;
                    for (unsigned long j = 0; j < k; ++j) {
                        at = m.find(c, at == std::string::npos ? 0 : at + 1);
                        if (at == std::string::npos) break;
                    }
                    nth = modelFind(m, at);
                }
                FUZZ_CHECK(s.nthIndex(k, c) == nth, "nthIndex(%lu, '%c') = %lu, model %lu", k, c, s.nthIndex(k, c), nth);
                break;
            }
            case 16: {  // substitute leaves this string alone
                std::string from = word(in, 3), to = word(in, 4);
                String r = s.substitute(from.c_str(), to.c_str());
                std::string mr = m;
                if (!from.empty())
                    for (size_t at = 0; (at = mr.find(from, at)) != std::string::npos; at += to.size())
                        mr.replace(at, from.size(), to);
                if (!null) same(r, mr, "substitute");
                break;
            }
            case 17: {
                String r = s.reverse();
                if (m.empty())
                    FUZZ_CHECK(r.isNull(), "reverse of an empty string is null");
                else
                    same(r, std::string(m.rbegin(), m.rend()), "reverse");
                break;
            }
            case 18: {  // comparisons with a second string
                std::string w = word(in, 6);
                String o(w.c_str());
                if (!null) {
                    int c = s.compare(o), mc = std::strcmp(m.c_str(), w.c_str());
                    FUZZ_CHECK((c > 0) == (mc > 0) && (c < 0) == (mc < 0), "compare");
                    FUZZ_CHECK((s == o) == (m == w), "==");
                    FUZZ_CHECK((s == w.c_str()) == (m == w), "== text");
                    FUZZ_CHECK(s.startsWith(w.c_str()) == (m.compare(0, w.size(), w) == 0), "startsWith");
                }
                break;
            }
            case 19: {  // self-append doubles (kept small: a 64 MiB buffer is past the arena's limit)
                if (null || m.size() > 4096) break;
                s += s;
                m += m;
                break;
            }
            case 20: {  // concatenation
                std::string w = word(in, 6);
                String r = s + w.c_str();
                same(r, m + w, "operator+");
                break;
            }
            case 21: {  // tokens over the whole text
                if (null) break;
                std::string delims = word(in, 2);
                unsigned long pos = 0, start = 0, end = 0;
                std::string joined, modelJoined;
                for (int guard = 0; guard < 64 && s.tokSpan(delims.c_str(), pos, start, end); ++guard) {
                    joined += m.substr(start, end - start) + "|";
                    pos = end;
                }
                int tokens = 0;  // the walk above stops after 64 tokens too
                for (size_t a = m.find_first_not_of(delims); a != std::string::npos && tokens < 64; ++tokens) {
                    size_t b = m.find_first_of(delims, a);
                    modelJoined += m.substr(a, b == std::string::npos ? std::string::npos : b - a) + "|";
                    if (b == std::string::npos) break;
                    a = m.find_first_not_of(delims, b);
                }
                FUZZ_CHECK(joined == modelJoined, "tokens \"%s\", model \"%s\"", joined.c_str(), modelJoined.c_str());
                break;
            }
            case 22: {  // donate and consume
                if (null) break;
                String other;
                other.consume(s.donate());
                FUZZ_CHECK(s.isNull(), "donate leaves a null string");
                s = other;
                break;
            }
            case 23: {
                unsigned long n = in.ConsumeIntegralInRange<unsigned long>(0, 300);
                unsigned long capacity = s.representation() ? s.representation()->capacity : 0;
                // A shared buffer is copied first, into room for its whole text, so
                // nothing is cut then.
                bool shared = s.representation() && s.representation()->refs >= 2;
                s.resizeFor(n);
                // A buffer that has to grow keeps only the first n characters.
                if (n == 0)
                    m.clear();
                else if (!shared && Utils::StringRep::sizeFor(n) > capacity && m.size() > n)
                    m.resize(n);
                null = false;
                break;
            }
            default:
                s.purge();
                m.clear();
                null = true;
                break;
        }
        if (std::getenv("FUZZ_TRACE")) std::fprintf(stderr, "op %d: \"%.40s\" (%lu) model \"%.40s\" (%zu)\n", op, s.text(), s.length(), m.c_str(), m.size());
        same(s, m, "string");
        if (null) FUZZ_CHECK(s.isNull(), "a null string stays null (op %d)", op);
        same(copy, copyModel, "copy");
        if (view.representation()) {
            FUZZ_CHECK(!view.representation()->verify(), "view: %s", view.representation()->verify());
            FUZZ_CHECK(view.length() == viewModel.size(), "view length");
            if (view.chars()) FUZZ_CHECK(std::memcmp(view.chars(), viewModel.data(), viewModel.size()) == 0, "view text");
        }
    }
    return 0;
}
