// Vector<T> against std::vector with a counting element table: element objects
// and arrays are counted as the table makes and frees them, and the table can be
// told to refuse its next array, so growth failure is part of the stream. After
// every step: the elements, verify() (slots beyond count in their reset state),
// and exactly one live array per vector that has storage.
#include <algorithm>
#include <vector>

#include "fuzz_check.h"
#include "utils/vector.h"

namespace {

struct Tracked {
    static long live;
    int v;
    Tracked() : v(0) { ++live; }
    Tracked(int x) : v(x) { ++live; }
    Tracked(Tracked const& o) : v(o.v) { ++live; }
    Tracked& operator=(Tracked const& o) = default;
    ~Tracked() { --live; }
    bool operator==(Tracked const& o) const { return v == o.v; }
};
long Tracked::live = 0;

long gArrays = 0;
bool gRefuseNext = false;

}  // namespace

namespace Utils {
template <>
struct VectorOps<Tracked> {
    static void* allocArray(unsigned long n) {
        if (gRefuseNext) {
            gRefuseNext = false;
            return nullptr;
        }
        ++gArrays;
        return new Tracked[n]();
    }
    static void freeArray(void* array) {
        if (array) --gArrays;
        delete[] static_cast<Tracked*>(array);
    }
    static void assign(void* dst, void const* src) { *static_cast<Tracked*>(dst) = *static_cast<Tracked const*>(src); }
    static int equals(void const* a, void const* b) {
        return *static_cast<Tracked const*>(a) == *static_cast<Tracked const*>(b) ? 1 : 0;
    }
    static void reset(void* element) { *static_cast<Tracked*>(element) = Tracked(); }
    static constexpr TemplOps table = {static_cast<unsigned int>(sizeof(Tracked)),
                                       &allocArray,
                                       &freeArray,
                                       &assign,
                                       &equals,
                                       &reset,
                                       {static_cast<unsigned int>(offsetof(VectorLayout, capacity)),
                                        static_cast<unsigned int>(offsetof(VectorLayout, data)), 0, 0}};
    static TemplOps const& get() { return table; }
};
}  // namespace Utils

namespace {

using Vec = Utils::Vector<Tracked>;

void same(Vec const& v, std::vector<int> const& m, char const* what) {
    char const* fault = v.verify();
    FUZZ_CHECK(!fault, "%s: verify: %s", what, fault);
    FUZZ_CHECK(v.size() == m.size(), "%s: %lu elements, model %zu", what, v.size(), m.size());
    for (size_t i = 0; i < m.size(); ++i) FUZZ_CHECK(v[i].v == m[i], "%s: element %zu is %d, model %d", what, i, v[i].v, m[i]);
}

unsigned long grownCapacity(unsigned long cap, unsigned long n) {
    if (n <= cap) return cap;
    if (n > 16) return (n * 110 + 110) / 100;
    unsigned long c = cap ? cap : 4;
    while (c < n) c *= 2;
    return c;
}

std::vector<int> values(FuzzedDataProvider& in, size_t max) {
    std::vector<int> out(in.ConsumeIntegralInRange<size_t>(0, max));
    for (int& x : out) x = in.ConsumeIntegralInRange<int>(0, 9);
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    FuzzedDataProvider in(data, size);
    long liveBefore = Tracked::live;
    {
        Vec v;
        std::vector<int> m;
        for (int step = 0; step < 300 && in.remaining_bytes() > 0; ++step) {
            gRefuseNext = in.ConsumeIntegralInRange<int>(0, 15) == 0;
            unsigned long capBefore = v.capacity;
            int op = in.ConsumeIntegralInRange<int>(0, 15);
            switch (op) {
                case 0: {
                    int x = in.ConsumeIntegralInRange<int>(0, 9);
                    unsigned long before = v.size();
                    unsigned long at = v.add(Tracked(x));
                    FUZZ_CHECK(at == before, "add returns the old count, also when the array cannot grow");
                    if (v.size() == before + 1) m.push_back(x);
                    break;
                }
                case 1: {
                    std::vector<int> xs = values(in, 20);
                    std::vector<Tracked> t(xs.begin(), xs.end());
                    unsigned long before = v.size();
                    v.add(t.data(), t.size());
                    if (v.size() == before + t.size()) m.insert(m.end(), xs.begin(), xs.end());
                    break;
                }
                case 2: {
                    int x = in.ConsumeIntegralInRange<int>(0, 9);
                    unsigned long index = in.ConsumeIntegralInRange<unsigned long>(0, m.size() + 3);
                    unsigned long before = v.size();
                    v.insert(Tracked(x), index);
                    if (v.size() == before + 1) m.insert(m.begin() + static_cast<long>(std::min<size_t>(index, m.size())), x);
                    break;
                }
                case 3: {
                    std::vector<int> xs = values(in, 20);
                    std::vector<Tracked> t(xs.begin(), xs.end());
                    unsigned long index = in.ConsumeIntegralInRange<unsigned long>(0, m.size() + 3);
                    unsigned long before = v.size();
                    v.insert(t.data(), t.size(), index);
                    if (v.size() == before + t.size())
                        m.insert(m.begin() + static_cast<long>(std::min<size_t>(index, m.size())), xs.begin(), xs.end());
                    break;
                }
                case 4: {
                    int x = in.ConsumeIntegralInRange<int>(0, 9);
                    unsigned long i = 12345, j = 12345;
                    auto f = std::find(m.begin(), m.end(), x);
                    bool found = v.locate(Tracked(x), i);
                    FUZZ_CHECK(found == (f != m.end()) && i == static_cast<unsigned long>(f - m.begin()), "locate");
                    auto r = std::find(m.rbegin(), m.rend(), x);
                    found = v.locateLast(Tracked(x), j);
                    FUZZ_CHECK(found == (r != m.rend()) && j == (found ? m.size() - 1 - static_cast<unsigned long>(r - m.rbegin()) : 0),
                               "locateLast");
                    break;
                }
                case 5: {
                    unsigned long index = in.ConsumeIntegralInRange<unsigned long>(0, m.size() + 1);
                    bool removed = in.ConsumeBool() ? v.removeAt(index) : v.removeAtOrdered(index);
                    FUZZ_CHECK(removed == (index < m.size()), "removeAt(%lu)", index);
                    if (removed) m.erase(m.begin() + static_cast<long>(index));
                    break;
                }
                case 6: {
                    unsigned long last = in.ConsumeIntegralInRange<unsigned long>(0, m.size());
                    unsigned long first = in.ConsumeIntegralInRange<unsigned long>(0, m.size());
                    FUZZ_CHECK(v.removeAt(first, last), "range removal returns true");
                    if (first < last) m.erase(m.begin() + static_cast<long>(first), m.begin() + static_cast<long>(last));
                    break;
                }
                case 7: {
                    std::vector<int> xs = values(in, 4);
                    std::vector<Tracked> t(xs.begin(), xs.end());
                    bool all = true;
                    for (int x : xs) {
                        auto f = std::find(m.begin(), m.end(), x);
                        if (f == m.end())
                            all = false;
                        else
                            m.erase(f);
                    }
                    FUZZ_CHECK(v.remove(t.data(), t.size()) == all, "remove(values)");
                    break;
                }
                case 8: {
                    unsigned long n = in.ConsumeIntegralInRange<unsigned long>(0, m.size() + 20);
                    v.sizeTo(n);
                    if (v.size() == n) m.resize(n, 0);
                    break;
                }
                case 9: {
                    unsigned long n = in.ConsumeIntegralInRange<unsigned long>(m.size(), m.size() + 20);
                    bool refused = gRefuseNext;
                    v.sizeToExact(n);
                    if (v.size() == n) {
                        m.resize(n, 0);
                        FUZZ_CHECK(v.capacity == n || (refused && v.capacity == capBefore), "sizeToExact capacity");
                    }
                    break;
                }
                case 10: {
                    unsigned long n = in.ConsumeIntegralInRange<unsigned long>(0, 64);
                    bool refused = gRefuseNext;
                    v.resizeFor(n);
                    unsigned long want = grownCapacity(capBefore, n);
                    FUZZ_CHECK(v.capacity == want || (refused && v.capacity == capBefore), "resizeFor(%lu): %lu, model %lu",
                               n, v.capacity, want);
                    break;
                }
                case 11:
                    v.clear();
                    m.clear();
                    FUZZ_CHECK(v.capacity == capBefore, "clear keeps the array");
                    break;
                case 12:
                    v.purge();
                    m.clear();
                    FUZZ_CHECK(v.capacity == 0 && v.data == nullptr, "purge frees the array");
                    break;
                case 13: {
                    std::vector<int> xs = values(in, 30);
                    std::vector<Tracked> t(xs.begin(), xs.end());
                    v.vectorCopyOp(t.data(), t.size());
                    if (v.size() == xs.size())
                        m = xs;
                    else {
                        FUZZ_CHECK(v.size() == 0, "a failed copy leaves the vector empty");
                        m.clear();
                    }
                    break;
                }
                case 14: {  // copies compare equal and are independent
                    gRefuseNext = false;
                    Vec copy(v);
                    same(copy, m, "copy");
                    FUZZ_CHECK(copy.compare(v) == 0, "compare of a copy");
                    if (!m.empty()) {
                        copy[0] = Tracked(copy[0].v + 1);
                        FUZZ_CHECK(copy.compare(v) == 1, "compare after a change");
                    }
                    break;
                }
                default: {
                    gRefuseNext = false;
                    Vec other;
                    other = v;
                    FUZZ_CHECK(other.remove(other), "v.remove(v)");
                    FUZZ_CHECK(other.size() == 0 && other.data == nullptr, "v.remove(v) empties");
                    break;
                }
            }
            gRefuseNext = false;
            same(v, m, "vector");
            FUZZ_CHECK(gArrays == (v.data ? 1 : 0), "%ld arrays live", gArrays);
            FUZZ_CHECK(Tracked::live - liveBefore == static_cast<long>(v.capacity), "%ld elements live, capacity %lu",
                       Tracked::live - liveBefore, v.capacity);
        }
    }
    FUZZ_CHECK(gArrays == 0 && Tracked::live == liveBefore, "arrays or elements left behind");
    return 0;
}
