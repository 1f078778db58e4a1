// Vector<T> and VectorBase: growth policy, every operation's exact algorithm (oddities
// included), element-operation counts, and a randomised run against std::vector.
#include "utils/vector.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "knobs.h"

using Utils::TemplOps;
using Utils::Vector;

// ---------------------------------------------------------------------------
// A counting element type: its table counts every call the core makes.
// ---------------------------------------------------------------------------
struct Tracked {
    int v;
};

struct OpCounts {
    unsigned long allocArray, freeArray, assign, equals, reset;
    void zero() { *this = OpCounts{}; }
};
static OpCounts counts;
// While set, the Tracked table's allocArray has no memory and returns null.
static bool noArrays = false;

namespace {
void* trackedAlloc(unsigned long n) {
    ++counts.allocArray;
    if (noArrays) return nullptr;
    return new Tracked[n]();
}
void trackedFree(void* a) {
    ++counts.freeArray;
    delete[] static_cast<Tracked*>(a);
}
void trackedAssign(void* d, void const* s) {
    ++counts.assign;
    *static_cast<Tracked*>(d) = *static_cast<Tracked const*>(s);
}
int trackedEquals(void const* a, void const* b) {
    ++counts.equals;
    return static_cast<Tracked const*>(a)->v == static_cast<Tracked const*>(b)->v;
}
void trackedReset(void* e) {
    ++counts.reset;
    static_cast<Tracked*>(e)->v = 0;
}
constexpr TemplOps trackedOps = {sizeof(Tracked), &trackedAlloc, &trackedFree, &trackedAssign, &trackedEquals,
                                 &trackedReset,
                                 {static_cast<unsigned int>(offsetof(Utils::VectorLayout, capacity)),
                                  static_cast<unsigned int>(offsetof(Utils::VectorLayout, data)), 0, 0}};

// An element type whose table never allocates: lets the growth policy be read at
// sizes no test could allocate. Only valid while count stays 0.
struct Phantom {
    char c;
};
void* phantomAlloc(unsigned long) { return reinterpret_cast<void*>(std::uintptr_t{0x1000}); }
void phantomFree(void*) {}
void phantomAssign(void*, void const*) { ADD_FAILURE() << "no element may move"; }
int phantomEquals(void const*, void const*) { return 1; }
void phantomReset(void*) {}
constexpr TemplOps phantomOps = {1, &phantomAlloc, &phantomFree, &phantomAssign, &phantomEquals, &phantomReset,
                                 {static_cast<unsigned int>(offsetof(Utils::VectorLayout, capacity)),
                                  static_cast<unsigned int>(offsetof(Utils::VectorLayout, data)), 0, 0}};

// Two values of this type never compare equal, like the log hub's class records.
struct NeverEqual {
    int v = 0;
    bool operator==(NeverEqual const&) const { return false; }
};

// Counts live objects of a non-trivial type handled by the generic table.
struct Lively {
    static long live;
    std::string s;
    Lively() { ++live; }
    Lively(Lively const& o) : s(o.s) { ++live; }
    explicit Lively(char const* t) : s(t) { ++live; }
    Lively& operator=(Lively const&) = default;
    ~Lively() { --live; }
    bool operator==(Lively const& o) const { return s == o.s; }
};
long Lively::live = 0;
}  // namespace

namespace Utils {
template <>
struct VectorOps<Tracked> {
    static TemplOps const& get() { return trackedOps; }
};
template <>
struct VectorOps<Phantom> {
    static TemplOps const& get() { return phantomOps; }
};
}  // namespace Utils

static std::vector<int> contents(Vector<Tracked> const& v) {
    std::vector<int> out;
    for (unsigned long i = 0; i < v.count; ++i) out.push_back(v.data[i].v);
    return out;
}
static std::vector<int> slots(Vector<Tracked> const& v) {
    std::vector<int> out;
    for (unsigned long i = 0; i < v.capacity; ++i) out.push_back(v.data[i].v);
    return out;
}
static void fill(Vector<Tracked>& v, int n) {
    for (int i = 1; i <= n; ++i) v.add(Tracked{i});
}

// ---------------------------------------------------------------------------
// Construction and layout
// ---------------------------------------------------------------------------
// Constant-initialised, so usable from any static initialiser; clang proves it.
#if defined(__clang__)
[[clang::require_constant_initialization]]
#endif
static Vector<unsigned int> staticVector;

TEST(Vector, NewVectorIsAllZero) {
    Vector<unsigned int> probe;
    EXPECT_EQ(probe.count, 0u);
    EXPECT_EQ(probe.capacity, 0u);
    EXPECT_EQ(probe.data, nullptr);
    EXPECT_EQ(staticVector.count, 0u);
    EXPECT_EQ(staticVector.data, nullptr);
    EXPECT_EQ(staticVector.verify(), nullptr);
}

TEST(Vector, LibraryTablesDescribeTheirElements) {
    EXPECT_EQ(Utils::templOpsUInt.elemSize, 4u);
    EXPECT_EQ(Utils::templOpsResultListener.elemSize, sizeof(void*));
    EXPECT_EQ(Utils::templOpsLogCat.elemSize, sizeof(void*));
    EXPECT_EQ(Utils::templOpsUInt.offsets[0], 8u);
    EXPECT_EQ(Utils::templOpsUInt.offsets[1], 16u);
    EXPECT_EQ(Utils::templOpsUInt.offsets[2], 0u);
    EXPECT_EQ(Utils::templOpsUInt.offsets[3], 0u);
    EXPECT_EQ(&Vector<unsigned int>::ops(), &Utils::templOpsUInt);
    EXPECT_EQ(&Vector<Utils::ResultListener const*>::ops(), &Utils::templOpsResultListener);
    EXPECT_EQ(&Vector<Utils::LogCat*>::ops(), &Utils::templOpsLogCat);
}

TEST(Vector, ScalarTablesValueInitialiseSoUnusedSlotsReadZero) {
    Vector<unsigned int> v;
    v.add(7u);
    ASSERT_EQ(v.capacity, 4u);
    EXPECT_EQ(v.data[1], 0u);
    EXPECT_EQ(v.data[2], 0u);
    EXPECT_EQ(v.data[3], 0u);
    Vector<Utils::LogCat*> cats;
    cats.sizeTo(3);
    EXPECT_EQ(cats.data[0], nullptr);
    EXPECT_EQ(cats.data[3], nullptr);
    EXPECT_EQ(cats.verify(), nullptr);
}

// ---------------------------------------------------------------------------
// Growth policy
// ---------------------------------------------------------------------------
TEST(Vector, AddOnEmptyReturnsZeroAndLeavesCapacityFour) {
    Vector<unsigned int> v;
    EXPECT_EQ(v.add(42u), 0u);
    EXPECT_EQ(v.capacity, 4u);
    EXPECT_EQ(v.count, 1u);
    EXPECT_EQ(v.data[0], 42u);
}

TEST(Vector, AddingSeventeenGivesCapacityNineteenAndFiveGivesEight) {
    Vector<unsigned int> five;
    for (unsigned int i = 0; i < 5; ++i) five.add(i);
    EXPECT_EQ(five.capacity, 8u);
    unsigned int const block[5] = {1, 2, 3, 4, 5};
    Vector<unsigned int> atOnce;
    atOnce.add(block, 5);
    EXPECT_EQ(atOnce.capacity, 8u);
    EXPECT_EQ(atOnce.count, 5u);
    Vector<unsigned int> v;
    for (unsigned int i = 0; i < 17; ++i) v.add(i);
    EXPECT_EQ(v.capacity, 19u);
}

TEST(Vector, GrowthOneByOneFollowsDoublingThenTenPercent) {
    Vector<unsigned int> v;
    std::vector<unsigned long> changes;  // (element number, capacity) at each change
    unsigned long last = 0;
    for (unsigned int i = 1; i <= 30; ++i) {
        v.add(i);
        if (v.capacity != last) {
            changes.push_back(i);
            changes.push_back(v.capacity);
            last = v.capacity;
        }
    }
    std::vector<unsigned long> expected = {1, 4, 5, 8, 9, 16, 17, 19, 20, 23, 24, 27, 28, 31};
    EXPECT_EQ(changes, expected);
}

TEST(Vector, OddCapacityKeepsDoublingFromItself) {
    Vector<unsigned int> v;
    v.sizeToExact(3);
    EXPECT_EQ(v.capacity, 3u);
    v.resizeFor(4);
    EXPECT_EQ(v.capacity, 6u);
    v.resizeFor(7);
    EXPECT_EQ(v.capacity, 12u);
    v.resizeFor(13);
    EXPECT_EQ(v.capacity, 24u);
    EXPECT_EQ(v.count, 3u);
}

TEST(Vector, ResizeForNeverShrinksAndIgnoresCurrentCapacityAboveSixteen) {
    Vector<unsigned int> v;
    v.resizeFor(100);
    EXPECT_EQ(v.capacity, 111u);
    v.resizeFor(50);
    EXPECT_EQ(v.capacity, 111u);
    v.resizeFor(112);
    EXPECT_EQ(v.capacity, 124u);  // (112 * 110 + 110) / 100, not a multiple of 111
}

TEST(Vector, GrowthMatches32BitFormulaUntilItOverflowsThenStaysAboveRequest) {
    struct Case {
        unsigned long n, expected;
    } cases[] = {
        {17, 19},
        {1000, 1101},
        {39045156, 42949672},  // last request whose 32-bit product (4294967270) fits
        {39045157, 42949673},  // 32-bit arithmetic would wrap to 0 here
        {4294967295ul, 4724464025ul},
        {1000000000000ul, 1100000000001ul},
    };
    for (Case c : cases) {
        Vector<Phantom> v;
        v.resizeFor(c.n);
        EXPECT_EQ(v.capacity, c.expected) << "n = " << c.n;
        EXPECT_GE(v.capacity, c.n);
        if (c.n < 39045157) {
            std::uint32_t n32 = static_cast<std::uint32_t>(c.n);
            EXPECT_EQ(v.capacity, (n32 * 110u + 110u) / 100u);
        }
        v.capacity = 0;  // the phantom array must not reach freeArray's real work
        v.data = nullptr;
    }
}

TEST(Vector, GrowthMovesElementsWithAssignInOrderAndFreesTheOldArray) {
    Vector<Tracked> v;
    fill(v, 4);
    counts.zero();
    v.add(Tracked{5});
    EXPECT_EQ(counts.allocArray, 1u);
    EXPECT_EQ(counts.assign, 5u);  // 4 moved, 1 stored
    EXPECT_EQ(counts.freeArray, 1u);
    EXPECT_EQ(counts.reset, 0u);
    EXPECT_EQ(contents(v), (std::vector<int>{1, 2, 3, 4, 5}));
}

TEST(Vector, FirstGrowthFreesTheNullArrayToo) {
    Vector<Tracked> v;
    counts.zero();
    v.add(Tracked{1});
    EXPECT_EQ(counts.allocArray, 1u);
    EXPECT_EQ(counts.freeArray, 1u);
    EXPECT_EQ(counts.assign, 1u);
}

TEST(Vector, GrowthWithoutMemoryLeavesTheVectorAsItWas) {
    Vector<Tracked> v;
    fill(v, 4);  // capacity 4: the next element needs a new array
    Tracked* data = v.data;
    Tracked more[2] = {{8}, {9}};
    noArrays = true;
    counts.zero();
    EXPECT_EQ(v.add(Tracked{5}), 4u);  // count: no element has that index
    v.add(more, 2);
    v.insert(Tracked{6}, 0);
    v.insert(more, 2, 1);
    v.sizeTo(10);
    v.sizeToExact(10);
    v.resizeFor(20);
    EXPECT_EQ(counts.allocArray, 7u);  // one try each, and nothing moved or freed
    EXPECT_EQ(counts.assign, 0u);
    EXPECT_EQ(counts.freeArray, 0u);
    EXPECT_EQ(contents(v), (std::vector<int>{1, 2, 3, 4}));
    EXPECT_EQ(v.capacity, 4u);
    EXPECT_EQ(v.data, data);
    // vectorCopyOp frees its array before it grows: without memory it ends empty.
    Tracked three[3] = {{1}, {2}, {3}};
    v.vectorCopyOp(three, 3);
    EXPECT_EQ(v.count, 0u);
    EXPECT_EQ(v.capacity, 0u);
    EXPECT_EQ(v.data, nullptr);
    noArrays = false;
    v.add(Tracked{7});
    EXPECT_EQ(contents(v), (std::vector<int>{7}));
    EXPECT_EQ(v.verify(), nullptr);
}

TEST(Vector, LibraryScalarTablesReturnNullWhenMemoryIsExhausted) {
    // Arrays of 4 and 8 TiB: more than the process allocator can ever give.
    if (char const* why = zotest::foreignOperatorNew()) GTEST_SKIP() << why;
    EXPECT_EQ(Utils::templOpsUInt.allocArray(1ul << 40), nullptr);
    EXPECT_EQ(Utils::templOpsLogCat.allocArray(1ul << 40), nullptr);
    Vector<unsigned int> v;
    v.add(1u);
    v.sizeTo(1ul << 40);
    EXPECT_EQ(v.count, 1u);
    EXPECT_EQ(v[0], 1u);
}

// ---------------------------------------------------------------------------
// add / insert
// ---------------------------------------------------------------------------
TEST(Vector, AddManyAppendsInOrder) {
    Vector<Tracked> v;
    fill(v, 2);
    Tracked more[] = {{7}, {8}, {9}};
    counts.zero();
    v.add(more, 3);
    EXPECT_EQ(contents(v), (std::vector<int>{1, 2, 7, 8, 9}));
    EXPECT_EQ(counts.assign, 2u + 3u);  // growth 4 -> 8 moves 2
    EXPECT_EQ(v.capacity, 8u);
}

TEST(Vector, InsertBeyondCountStoresAtTheEnd) {
    Vector<unsigned int> v;
    v.add(1u);
    v.add(2u);
    v.add(3u);
    v.insert(99u, 10);
    ASSERT_EQ(v.count, 4u);
    EXPECT_EQ(v.data[3], 99u);
    EXPECT_EQ(v.data[2], 3u);
}

TEST(Vector, InsertMovesTheTailUpFromTheLast) {
    Vector<Tracked> v;
    fill(v, 3);
    counts.zero();
    v.insert(Tracked{9}, 1);
    EXPECT_EQ(contents(v), (std::vector<int>{1, 9, 2, 3}));
    EXPECT_EQ(counts.assign, 3u);  // two moves, one store; no growth (capacity 4)
    EXPECT_EQ(counts.allocArray, 0u);
}

TEST(Vector, InsertManyAtIndexAndBeyondCount) {
    Vector<Tracked> v;
    fill(v, 4);
    Tracked two[] = {{7}, {8}};
    v.insert(two, 2, 1);
    EXPECT_EQ(contents(v), (std::vector<int>{1, 7, 8, 2, 3, 4}));
    v.insert(two, 2, 100);
    EXPECT_EQ(contents(v), (std::vector<int>{1, 7, 8, 2, 3, 4, 7, 8}));
    v.insert(two, 2, 0);
    EXPECT_EQ(contents(v), (std::vector<int>{7, 8, 1, 7, 8, 2, 3, 4, 7, 8}));
    EXPECT_EQ(v.verify(), nullptr);
}

// ---------------------------------------------------------------------------
// locate / locateLast / compare
// ---------------------------------------------------------------------------
TEST(Vector, LocateMissSetsCountAndLocateLastMissSetsZero) {
    Vector<unsigned int> v;
    for (unsigned int x : {5u, 6u, 7u}) v.add(x);
    unsigned long index = 123;
    EXPECT_FALSE(v.locate(9u, index));
    EXPECT_EQ(index, 3u);
    index = 123;
    EXPECT_FALSE(v.locateLast(9u, index));
    EXPECT_EQ(index, 0u);
}

TEST(Vector, LocateFindsFirstAndLocateLastFindsLast) {
    Vector<unsigned int> v;
    for (unsigned int x : {4u, 8u, 4u, 8u}) v.add(x);
    unsigned long index = 0;
    EXPECT_TRUE(v.locate(8u, index));
    EXPECT_EQ(index, 1u);
    EXPECT_TRUE(v.locateLast(4u, index));
    EXPECT_EQ(index, 2u);
}

TEST(Vector, LocateWithNeverEqualTableNeverFinds) {
    Vector<NeverEqual> v;
    NeverEqual e;
    v.add(e);
    v.add(e);
    unsigned long index = 55;
    EXPECT_FALSE(v.locate(v.data[0], index));
    EXPECT_EQ(index, 2u);
    EXPECT_FALSE(v.remove(e));
    EXPECT_EQ(v.count, 2u);
    EXPECT_EQ(v.verify(), nullptr);  // slot check skipped: no usable equality
}

TEST(Vector, CompareWithOtherLengthReturnsOneWithoutCallingEquals) {
    Vector<Tracked> v;
    fill(v, 3);
    Tracked two[] = {{1}, {2}};
    counts.zero();
    EXPECT_EQ(v.compare(two, 2), 1);
    EXPECT_EQ(counts.equals, 0u);
}

TEST(Vector, CompareOfTwoEmptySequencesIsZero) {
    Vector<Tracked> v;
    EXPECT_EQ(v.compare(nullptr, 0), 0);
    Vector<Tracked> w;
    EXPECT_EQ(v.compare(w), 0);
}

TEST(Vector, CompareIsAnInequalityTestStoppingAtFirstDifference) {
    Vector<Tracked> v;
    fill(v, 4);
    Tracked same[] = {{1}, {2}, {3}, {4}};
    Tracked smaller[] = {{1}, {0}, {3}, {4}};
    Tracked greater[] = {{1}, {9}, {3}, {4}};
    EXPECT_EQ(v.compare(same, 4), 0);
    counts.zero();
    EXPECT_EQ(v.compare(smaller, 4), 1);
    EXPECT_EQ(counts.equals, 2u);
    EXPECT_EQ(v.compare(greater, 4), 1);  // no sign: not an ordering
}

// ---------------------------------------------------------------------------
// removal
// ---------------------------------------------------------------------------
TEST(Vector, RemoveAtCountReturnsFalseAndChangesNothing) {
    Vector<Tracked> v;
    fill(v, 5);
    counts.zero();
    EXPECT_FALSE(v.removeAt(5));
    EXPECT_EQ(contents(v), (std::vector<int>{1, 2, 3, 4, 5}));
    EXPECT_EQ(counts.assign + counts.reset, 0u);
}

TEST(Vector, RemoveAtEmptyRangeReturnsTrueAndChangesNothing) {
    Vector<Tracked> v;
    fill(v, 5);
    counts.zero();
    EXPECT_TRUE(v.removeAt(2, 2));
    EXPECT_TRUE(v.removeAt(4, 1));
    EXPECT_EQ(contents(v), (std::vector<int>{1, 2, 3, 4, 5}));
    EXPECT_EQ(counts.assign + counts.reset, 0u);
}

TEST(Vector, RemoveAtOrderedShiftsDownAndResetsTheOldLastSlot) {
    Vector<Tracked> v;
    fill(v, 5);
    counts.zero();
    EXPECT_TRUE(v.removeAtOrdered(1));
    EXPECT_EQ(contents(v), (std::vector<int>{1, 3, 4, 5}));
    EXPECT_EQ(counts.assign, 3u);
    EXPECT_EQ(counts.reset, 1u);
    EXPECT_EQ(slots(v), (std::vector<int>{1, 3, 4, 5, 0, 0, 0, 0}));
}

TEST(Vector, RemoveRangeMovesTheTailAndResetsTheFreedSlots) {
    Vector<Tracked> v;
    fill(v, 7);
    counts.zero();
    EXPECT_TRUE(v.removeAt(1, 4));
    EXPECT_EQ(contents(v), (std::vector<int>{1, 5, 6, 7}));
    EXPECT_EQ(counts.assign, 3u);
    EXPECT_EQ(counts.reset, 3u);
    EXPECT_EQ(slots(v), (std::vector<int>{1, 5, 6, 7, 0, 0, 0, 0}));
    EXPECT_TRUE(v.removeAt(2, 4));  // a range that ends at count
    EXPECT_EQ(contents(v), (std::vector<int>{1, 5}));
    EXPECT_EQ(v.verify(), nullptr);
}

TEST(Vector, RemoveOfValuePresentTwiceRemovesOnlyTheFirst) {
    Vector<unsigned int> v;
    for (unsigned int x : {1u, 7u, 2u, 7u}) v.add(x);
    EXPECT_TRUE(v.remove(7u));
    ASSERT_EQ(v.count, 3u);
    EXPECT_EQ(v.data[0], 1u);
    EXPECT_EQ(v.data[1], 2u);
    EXPECT_EQ(v.data[2], 7u);
    EXPECT_FALSE(v.remove(9u));
    EXPECT_EQ(v.count, 3u);
}

TEST(Vector, RemoveManyReportsWhetherEveryValueWasFound) {
    Vector<Tracked> v;
    fill(v, 6);
    Tracked some[] = {{2}, {9}, {4}, {2}};
    EXPECT_FALSE(v.remove(some, 4));  // 9 and the second 2 are missing; the others go
    EXPECT_EQ(contents(v), (std::vector<int>{1, 3, 5, 6}));
    Tracked present[] = {{6}, {1}};
    EXPECT_TRUE(v.remove(present, 2));
    EXPECT_EQ(contents(v), (std::vector<int>{3, 5}));
}

TEST(Vector, RemoveOfItselfPurges) {
    Vector<Tracked> v;
    fill(v, 6);
    counts.zero();
    EXPECT_TRUE(v.remove(v));
    EXPECT_EQ(v.count, 0u);
    EXPECT_EQ(v.capacity, 0u);
    EXPECT_EQ(v.data, nullptr);
    EXPECT_EQ(counts.freeArray, 1u);
    EXPECT_EQ(counts.equals, 0u);
    // The same through the untyped entry: the values pointer is the vector object.
    fill(v, 2);
    EXPECT_TRUE(v.VectorBase::remove(&v, 2, v.ops(), &v));
    EXPECT_EQ(v.data, nullptr);
}

TEST(Vector, RemoveOfAnotherVectorRemovesItsElements) {
    Vector<Tracked> v, w;
    fill(v, 5);
    w.add(Tracked{2});
    w.add(Tracked{5});
    EXPECT_TRUE(v.remove(w));
    EXPECT_EQ(contents(v), (std::vector<int>{1, 3, 4}));
}

// ---------------------------------------------------------------------------
// sizeTo / sizeToExact / clear / purge / copy
// ---------------------------------------------------------------------------
TEST(Vector, SizeToBelowCountResetsEverySlotUpToCapacity) {
    Vector<Tracked> v;
    fill(v, 5);
    ASSERT_EQ(v.capacity, 8u);
    counts.zero();
    v.sizeTo(2);
    EXPECT_EQ(counts.reset, 6u);  // slots 2 .. 7
    EXPECT_EQ(v.count, 2u);
    EXPECT_EQ(v.capacity, 8u);
    EXPECT_EQ(slots(v), (std::vector<int>{1, 2, 0, 0, 0, 0, 0, 0}));
}

TEST(Vector, SizeToFortyOnEmptyGivesCapacityFortyFive) {
    Vector<unsigned int> v;
    v.sizeTo(40);
    EXPECT_EQ(v.capacity, 45u);
    EXPECT_EQ(v.count, 40u);
    EXPECT_EQ(v.data[39], 0u);
    EXPECT_EQ(v.verify(), nullptr);
}

TEST(Vector, SizeToAboveCountTouchesNoElement) {
    Vector<Tracked> v;
    fill(v, 3);
    counts.zero();
    v.sizeTo(4);
    EXPECT_EQ(counts.assign + counts.reset + counts.allocArray, 0u);
    EXPECT_EQ(contents(v), (std::vector<int>{1, 2, 3, 0}));
}

TEST(Vector, SizeToExactReallocatesToExactlyN) {
    Vector<Tracked> v;
    fill(v, 5);
    counts.zero();
    v.sizeToExact(6);
    EXPECT_EQ(v.capacity, 6u);
    EXPECT_EQ(v.count, 6u);
    EXPECT_EQ(counts.allocArray, 1u);
    EXPECT_EQ(counts.assign, 5u);
    EXPECT_EQ(counts.freeArray, 1u);
    EXPECT_EQ(contents(v), (std::vector<int>{1, 2, 3, 4, 5, 0}));
    counts.zero();
    v.sizeToExact(6);  // n equals capacity: no new array, count still set
    EXPECT_EQ(counts.allocArray, 0u);
    EXPECT_EQ(v.count, 6u);
    v.removeAt(3, 6);
    v.sizeToExact(6);
    EXPECT_EQ(v.count, 6u);
    EXPECT_EQ(v.verify(), nullptr);
}

TEST(Vector, ClearKeepsCapacityAndResetsFromTheLast) {
    Vector<Tracked> v;
    fill(v, 5);
    Tracked* array = v.data;
    counts.zero();
    v.clear();
    EXPECT_EQ(v.count, 0u);
    EXPECT_EQ(v.capacity, 8u);
    EXPECT_EQ(v.data, array);
    EXPECT_EQ(counts.reset, 5u);
    EXPECT_EQ(counts.freeArray, 0u);
    Vector<Tracked> empty;
    empty.clear();
    EXPECT_EQ(empty.data, nullptr);
}

TEST(Vector, PurgeLeavesCountCapacityAndDataZero) {
    Vector<Tracked> v;
    fill(v, 5);
    counts.zero();
    v.purge();
    EXPECT_EQ(v.count, 0u);
    EXPECT_EQ(v.capacity, 0u);
    EXPECT_EQ(v.data, nullptr);
    EXPECT_EQ(counts.freeArray, 1u);
    v.purge();  // freeArray accepts null
    EXPECT_EQ(counts.freeArray, 2u);
}

TEST(Vector, VectorCopyOpReplacesContentsAndSkipsItself) {
    Vector<Tracked> v;
    fill(v, 3);
    Tracked src[] = {{7}, {8}};
    counts.zero();
    v.vectorCopyOp(src, 2);
    EXPECT_EQ(contents(v), (std::vector<int>{7, 8}));
    EXPECT_EQ(v.capacity, 4u);
    EXPECT_EQ(counts.freeArray, 2u);  // the old array, then the null one inside the fresh growth
    EXPECT_EQ(counts.allocArray, 1u);
    EXPECT_EQ(counts.assign, 2u);
    counts.zero();
    Vector<Tracked>& alias = v;
    v = alias;  // self-assignment reaches the core as the vector's own address
    EXPECT_EQ(contents(v), (std::vector<int>{7, 8}));
    EXPECT_EQ(counts.freeArray + counts.assign, 0u);
}

TEST(Vector, CopiesAreIndependent) {
    Vector<unsigned int> a;
    for (unsigned int i = 0; i < 20; ++i) a.add(i);
    Vector<unsigned int> b(a);
    b.data[0] = 100;
    EXPECT_EQ(a.data[0], 0u);
    EXPECT_EQ(b.count, 20u);
    EXPECT_EQ(b.capacity, 23u);  // grown afresh for 20
    Vector<unsigned int> c;
    c = b;
    EXPECT_EQ(c.compare(b), 0);
}

TEST(Vector, DestructorReleasesEveryElement) {
    Lively::live = 0;
    {
        Vector<Lively> v;
        for (int i = 0; i < 30; ++i) v.add(Lively("x"));
        v.insert(Lively("first"), 0);
        v.removeAt(3, 9);
        EXPECT_EQ(v.data[0].s, "first");
        EXPECT_GT(Lively::live, 0);
        EXPECT_EQ(v.verify(), nullptr);
    }
    EXPECT_EQ(Lively::live, 0);
}

TEST(Vector, GenericTableWorksForStrings) {
    Vector<std::string> v;
    v.add(std::string(100, 'a'));
    v.add("b");
    v.insert("c", 0);
    unsigned long index = 9;
    EXPECT_TRUE(v.locate("b", index));
    EXPECT_EQ(index, 2u);
    EXPECT_TRUE(v.remove(std::string(100, 'a')));
    EXPECT_EQ(v.count, 2u);
    EXPECT_EQ(v.data[2], "");  // the vacated slot is reset
    EXPECT_EQ(v.verify(), nullptr);
}

TEST(Vector, PointerTablesMoveSearchAndResetWholeWords) {
    int objects[4];
    auto* a = reinterpret_cast<Utils::LogCat*>(&objects[0]);
    auto* b = reinterpret_cast<Utils::LogCat*>(&objects[1]);
    auto* c = reinterpret_cast<Utils::LogCat*>(&objects[2]);
    Vector<Utils::LogCat*> v;
    v.add(a);
    v.add(b);
    v.insert(c, 0);
    v.add(b);
    unsigned long index = 0;
    EXPECT_TRUE(v.locate(b, index));
    EXPECT_EQ(index, 2u);
    EXPECT_TRUE(v.locateLast(b, index));
    EXPECT_EQ(index, 3u);
    EXPECT_TRUE(v.remove(c));
    EXPECT_EQ(v.data[0], a);
    EXPECT_EQ(v.data[1], b);
    EXPECT_EQ(v.data[2], b);
    EXPECT_EQ(v.data[3], nullptr);
    Utils::LogCat* same[] = {a, b, b};
    EXPECT_EQ(v.compare(same, 3), 0);
    same[2] = c;
    EXPECT_EQ(v.compare(same, 3), 1);
    v.clear();
    EXPECT_EQ(v.data[0], nullptr);
    EXPECT_EQ(v.verify(), nullptr);
}

// ---------------------------------------------------------------------------
// The verifier
// ---------------------------------------------------------------------------
TEST(Vector, VerifierReportsCountAboveCapacityAndDirtySlots) {
    Vector<unsigned int> v;
    for (unsigned int i = 1; i <= 3; ++i) v.add(i);
    EXPECT_EQ(v.verify(), nullptr);
    v.data[3] = 5;  // a slot beyond count that is not in its reset state
    EXPECT_STREQ(v.verify(), "a slot beyond count is not in its reset state");
    v.data[3] = 0;
    v.count = 5;
    EXPECT_STREQ(v.verify(), "count exceeds capacity");
    v.count = 3;
}

// ---------------------------------------------------------------------------
// Randomised run against std::vector
// ---------------------------------------------------------------------------
// Capacity after a request of n, from the growth rules (independent of the core).
static unsigned long modelGrow(unsigned long capacity, unsigned long n) {
    if (n <= capacity) return capacity;
    if (n <= 16) {
        unsigned long c = capacity ? capacity : 4;
        while (c < n) c *= 2;
        return c;
    }
    return static_cast<std::uint32_t>(n * 110 + 110) / 100;
}

// Runs the same operation mix on Vector<T> and std::vector<T>, checking contents,
// capacity and the verifier after every operation.
template <class T>
void runAgainstStdVector(unsigned long seed) {
    std::mt19937_64 rng(seed);
    Vector<T> v;
    std::vector<T> model;
    unsigned long modelCapacity = 0;
    auto value = [&] { return static_cast<T>(rng() % 64); };
    auto below = [&](unsigned long n) { return n ? rng() % n : 0; };
    unsigned long const operations = zotest::scaled(150000);
    for (unsigned long step = 0; step < operations; ++step) {
        unsigned int op = rng() % 20;
        if (model.size() > 300 && op < 6) op = 10;  // keep the size moderate
        switch (op) {
            case 0:
            case 1:
            case 2: {
                T x = value();
                modelCapacity = modelGrow(modelCapacity, model.size() + 1);
                ASSERT_EQ(v.add(x), model.size());
                model.push_back(x);
                break;
            }
            case 3: {
                T xs[5];
                unsigned long n = below(6);
                for (unsigned long i = 0; i < n; ++i) xs[i] = value();
                modelCapacity = modelGrow(modelCapacity, model.size() + n);
                v.add(xs, n);
                model.insert(model.end(), xs, xs + n);
                break;
            }
            case 4: {
                T x = value();
                unsigned long index = below(model.size() + 3);
                modelCapacity = modelGrow(modelCapacity, model.size() + 1);
                v.insert(x, index);
                model.insert(model.begin() + std::min<unsigned long>(index, model.size()), x);
                break;
            }
            case 5: {
                T xs[4];
                unsigned long n = below(5);
                for (unsigned long i = 0; i < n; ++i) xs[i] = value();
                unsigned long index = below(model.size() + 3);
                modelCapacity = modelGrow(modelCapacity, model.size() + n);
                v.insert(xs, n, index);
                model.insert(model.begin() + std::min<unsigned long>(index, model.size()), xs, xs + n);
                break;
            }
            case 6: {
                T x = value();
                unsigned long index = 777, lastIndex = 777;
                auto it = std::find(model.begin(), model.end(), x);
                auto rit = std::find(model.rbegin(), model.rend(), x);
                ASSERT_EQ(v.locate(x, index), it != model.end());
                ASSERT_EQ(index, static_cast<unsigned long>(it - model.begin()));
                ASSERT_EQ(v.locateLast(x, lastIndex), rit != model.rend());
                ASSERT_EQ(lastIndex, rit == model.rend() ? 0ul : static_cast<unsigned long>(model.rend() - rit - 1));
                break;
            }
            case 7: {
                std::vector<T> other = model;
                if (!other.empty() && rng() % 2) other[below(other.size())] ^= 1;
                if (rng() % 4 == 0) other.push_back(1);
                ASSERT_EQ(v.compare(other.data(), other.size()), other == model ? 0 : 1);
                break;
            }
            case 8: {
                unsigned long index = below(model.size() + 2);
                bool inside = index < model.size();
                ASSERT_EQ(v.removeAt(index), inside);
                if (inside) model.erase(model.begin() + index);
                break;
            }
            case 9: {
                unsigned long first = below(model.size() + 1);
                unsigned long last = first + below(model.size() - first + 1);
                if (rng() % 8 == 0) std::swap(first, last);
                ASSERT_TRUE(v.removeAt(first, last));
                if (first < last) model.erase(model.begin() + first, model.begin() + last);
                break;
            }
            case 10:
            case 11: {
                T x = value();
                auto it = std::find(model.begin(), model.end(), x);
                ASSERT_EQ(v.remove(x), it != model.end());
                if (it != model.end()) model.erase(it);
                break;
            }
            case 12: {
                T xs[3] = {value(), value(), value()};
                bool all = true;
                for (T x : xs) {
                    auto it = std::find(model.begin(), model.end(), x);
                    if (it != model.end())
                        model.erase(it);
                    else
                        all = false;
                }
                ASSERT_EQ(v.remove(xs, 3), all);
                break;
            }
            case 13: {
                unsigned long n = below(model.size() + 40);
                if (n >= model.size()) modelCapacity = modelGrow(modelCapacity, n);
                v.sizeTo(n);
                model.resize(n, T());
                break;
            }
            case 14: {
                unsigned long n = model.size() + below(10);
                v.sizeToExact(n);
                modelCapacity = n;
                model.resize(n, T());
                break;
            }
            case 15:
                if (rng() % 8 == 0) {
                    v.clear();
                    model.clear();
                }
                break;
            case 16:
                if (rng() % 16 == 0) {
                    v.purge();
                    model.clear();
                    modelCapacity = 0;
                }
                break;
            case 17: {
                std::vector<T> src(below(30));
                for (auto& x : src) x = value();
                v.vectorCopyOp(src.data(), src.size());
                model = src;
                modelCapacity = modelGrow(0, src.size());
                break;
            }
            case 18: {
                Vector<T> copy(v);
                ASSERT_EQ(copy.compare(v), 0);
                ASSERT_EQ(copy.verify(), nullptr);
                if (rng() % 4 == 0) {
                    v = copy;
                    modelCapacity = modelGrow(0, model.size());
                }
                break;
            }
            default:
                if (!model.empty()) {
                    unsigned long i = below(model.size());
                    ASSERT_EQ(v[i], model[i]);
                }
                break;
        }
        ASSERT_EQ(v.verify(), nullptr) << "step " << step << " op " << op;
        ASSERT_EQ(v.count, model.size()) << "step " << step << " op " << op;
        ASSERT_EQ(v.capacity, modelCapacity) << "step " << step << " op " << op;
        ASSERT_TRUE(std::equal(model.begin(), model.end(), v.begin())) << "step " << step << " op " << op;
    }
}

// The library's unsigned int table (its scalar fast paths) and a table built by the
// template (one function call per element) must behave identically.
TEST(Vector, RandomisedAgainstStdVectorWithLibraryTable) { runAgainstStdVector<unsigned int>(0x5eed0001); }
TEST(Vector, RandomisedAgainstStdVectorWithTemplateTable) { runAgainstStdVector<unsigned long>(0x5eed0003); }

// ---------------------------------------------------------------------------
// The inline add and the scalar growth: the same vector as the core's add
// ---------------------------------------------------------------------------
TEST(VectorFastPaths, AddsGiveTheCoresContentsCapacitiesAndZeroedSpareSlots) {
    // The core's add (VectorBase::add) is the reference the inline add must match.
    std::mt19937_64 rng(31);
    Vector<unsigned int> fast;
    Vector<unsigned int> core;
    unsigned long n = zotest::scaled(20000);
    for (unsigned long i = 0; i < n; ++i) {
        unsigned int x = static_cast<unsigned int>(rng());
        ASSERT_EQ(fast.add(x), core.VectorBase::add(&x, Vector<unsigned int>::ops(), &core));
        ASSERT_EQ(fast.capacity, core.capacity);
        if (i % 1024 == 0 || fast.count == fast.capacity) {
            ASSERT_EQ(fast.verify(), nullptr);  // every slot past count reads 0
            ASSERT_EQ(fast.compare(core), 0);
        }
    }
    EXPECT_EQ(fast.compare(core), 0);
    fast.sizeToExact(fast.count + 5);  // the same reallocation step, spare slots zeroed
    EXPECT_EQ(fast.verify(), nullptr);
    EXPECT_EQ(fast.capacity, fast.count);
    Vector<Utils::LogCat*> cats;
    for (int i = 0; i < 20; ++i) cats.add(reinterpret_cast<Utils::LogCat*>(static_cast<std::uintptr_t>(8 * (i + 1))));
    EXPECT_EQ(cats.capacity, 23u);
    EXPECT_EQ(cats.verify(), nullptr);
    EXPECT_EQ(cats[19], reinterpret_cast<Utils::LogCat*>(160));
}

TEST(VectorFastPaths, AGrowthWithoutMemoryChangesNothing) {
    Vector<unsigned int> v;
    v.sizeToExact(1ul << 62);  // the request's bytes overflow a word: no array is asked for
    EXPECT_EQ(v.count, 0u);
    EXPECT_EQ(v.capacity, 0u);
    EXPECT_EQ(v.data, nullptr);
    if (char const* why = zotest::foreignOperatorNew()) GTEST_SKIP() << why << ", and reports instead of failing";
    v.sizeTo(1ul << 40);  // far beyond any arena: no array
    EXPECT_EQ(v.count, 0u);
    EXPECT_EQ(v.capacity, 0u);
}

TEST(VectorConveniences, MoveAddMovesWithTheGenericTable) {
    Vector<std::string> v;
    std::string big(100, 'x');
    EXPECT_EQ(v.add(std::move(big)), 0u);
    EXPECT_EQ(v[0], std::string(100, 'x'));
    EXPECT_TRUE(big.empty());  // moved from: the buffer went into the vector
    std::string kept = "copy";
    EXPECT_EQ(v.add(kept), 1u);
    EXPECT_EQ(kept, "copy");
    for (int i = 0; i < 30; ++i) v.add(std::to_string(i));
    EXPECT_EQ(v.count, 32u);
    EXPECT_EQ(v[31], "29");
    EXPECT_EQ(v.verify(), nullptr);
}

TEST(VectorConveniences, MoveAddOfATypeWithItsOwnTableGoesThroughItsAssign) {
    Vector<Tracked> v;
    counts.zero();
    v.add(Tracked{5});  // an rvalue: still the table's assign, once
    EXPECT_EQ(counts.assign, 1u);
    EXPECT_EQ(v[0].v, 5);
    v.purge();
}

TEST(VectorConveniences, RangeForAndAlgorithms) {
    Vector<unsigned int> v;
    for (unsigned int x : {5u, 3u, 9u, 1u}) v.add(x);
    std::sort(v.begin(), v.end());
    std::vector<unsigned int> seen;
    for (unsigned int x : v) seen.push_back(x);
    EXPECT_EQ(seen, (std::vector<unsigned int>{1, 3, 5, 9}));
    EXPECT_EQ(std::accumulate(v.begin(), v.end(), 0u), 18u);
}
