// Versions: numbers read from a text against a model of the reading (the first
// dotted token, read as a clamped decimal int, for all four numbers), the raise of
// the bad-argument code exactly when the text has no token, the text kept
// unchanged, the text built from four numbers, and the ordering.
#include <cerrno>
#include <climits>
#include <cstring>
#include <string>

#include "fuzz_check.h"
#include "utils/result.h"
#include "utils/version.h"

namespace {

// The first token between dots, read as a decimal int clamped to the int range
// and stored unsigned; false when the text holds nothing but dots.
bool modelNumber(std::string const& text, unsigned int* out) {
    size_t start = text.find_first_not_of('.');
    if (start == std::string::npos) return false;
    errno = 0;
    long v = std::strtol(text.c_str() + start, nullptr, 10);
    if (v > INT_MAX) v = INT_MAX;
    if (v < INT_MIN) v = INT_MIN;
    *out = static_cast<unsigned int>(static_cast<int>(v));
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Recorded as the last error, not logged for every input.
    Utils::setErrorSuppressed(Utils::kResultBadArgument);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    FuzzedDataProvider in(data, size);
    unsigned int n[4];
    for (unsigned int& x : n) x = in.ConsumeBool() ? in.ConsumeIntegralInRange<unsigned int>(0, 3) : in.ConsumeIntegral<unsigned int>();
    bool useNull = in.ConsumeIntegralInRange<int>(0, 15) == 0;
    std::string raw = in.ConsumeRemainingBytesAsString();
    std::string text(raw.c_str());

    Utils::clearError();
    Utils::VersionImpl parsed(useNull ? nullptr : raw.c_str());
    if (useNull) text.clear();
    unsigned int expect = 0;
    bool hasToken = modelNumber(text, &expect);
    FUZZ_CHECK(Utils::lastError() == (hasToken ? 0u : Utils::kResultBadArgument), "\"%s\": last error 0x%08x",
               text.c_str(), Utils::lastError());
    FUZZ_CHECK(parsed.major() == expect && parsed.minor() == expect && parsed.revision() == expect &&
                   parsed.build() == expect,
               "\"%s\" read as %u.%u.%u.%u, model %u", text.c_str(), parsed.major(), parsed.minor(),
               parsed.revision(), parsed.build(), expect);
    FUZZ_CHECK(std::strcmp(parsed.asString().text(), text.c_str()) == 0, "text kept");

    Utils::CountedRef<Utils::Version> made = Utils::Version::create(n[0], n[1], n[2], n[3]);
    FUZZ_CHECK(made, "create under no memory pressure");
    char model[64];
    std::snprintf(model, sizeof model, "%u.%u.%u.%u", n[0], n[1], n[2], n[3]);
    FUZZ_CHECK(std::strcmp(made->asString().text(), model) == 0, "text %s, model %s", made->asString().text(), model);
    Utils::VersionImpl reread(model);  // every number from the first component
    FUZZ_CHECK(reread.major() == (n[0] > INT_MAX ? static_cast<unsigned int>(INT_MAX) : n[0]), "reread");

    int order = 0;
    unsigned int mine[4] = {parsed.major(), parsed.minor(), parsed.revision(), parsed.build()};
    for (int i = 0; i < 4 && order == 0; ++i)
        if (mine[i] != n[i]) order = mine[i] < n[i] ? -1 : 1;
    Utils::clearError();
    FUZZ_CHECK(parsed.compare(made.operator->()) == order, "compare");
    FUZZ_CHECK(made->compare(&parsed) == -order, "compare reversed");
    FUZZ_CHECK(parsed.compare(nullptr) == 0 && Utils::lastError() == Utils::kResultBadArgument, "compare with null");
    return 0;
}
