// The log hub's category list and its ZoUtils.Log.* settings: a private hub is
// built from fuzzed environment values, then driven with enableCategories lists
// (":" separated, "name#level" forms), global setters and lookups, and after every
// step each category's level, enabled flag and verbosity, and the numbering, are
// compared with a model.
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "utils/log.h"
#include "zosys.h"

namespace {

struct Cat {
    int level;
    bool enabled;
    unsigned int verbosity;
};

struct Model {
    int level = 0;
    bool enabled = false;
    unsigned int verbosity = 0;
    std::vector<std::string> names;
    std::map<std::string, Cat> cats;

    void touch(std::string const& name, int lvl, bool on, unsigned int verb) {
        if (!cats.count(name)) names.push_back(name);
        cats[name] = Cat{lvl, on, verb};
    }
    void get(std::string const& name) {
        if (!cats.count(name)) touch(name, level, enabled, verbosity);
    }
    void enableList(std::string const& list, bool on) {
        size_t at = 0;
        while (at <= list.size()) {
            size_t colon = list.find(':', at);
            std::string item = list.substr(at, colon == std::string::npos ? std::string::npos : colon - at);
            at = colon == std::string::npos ? list.size() + 1 : colon + 1;
            if (item.empty()) continue;
            int lvl = level;
            size_t hash = item.find('#');
            if (hash != std::string::npos && hash + 1 < item.size()) {
                lvl = std::atoi(item.c_str() + hash + 1);
                item.resize(hash);
            }
            touch(item, lvl, on, verbosity);
        }
    }
    void setLevel(int l) {
        level = l;
        for (auto& c : cats) c.second.level = l;
    }
    void setEnabled(bool e) {
        enabled = e;
        for (auto& c : cats) c.second.enabled = e;
    }
    void setVerbosity(unsigned int v) {
        verbosity = v;
        for (auto& c : cats) c.second.verbosity = v;
    }
};

void compare(Utils::Log& hub, Model const& model) {
    for (unsigned int n = 0; n < model.names.size(); ++n) {
        char const* name = hub.getCategory(n);
        FUZZ_CHECK(name && model.names[n] == name, "category %u is \"%s\", model \"%s\"", n, name ? name : "(null)",
                   model.names[n].c_str());
        Cat const& c = model.cats.at(model.names[n]);
        FUZZ_CHECK(hub.level(n) == c.level && hub.enabled(n) == c.enabled && hub.verbosity(n) == c.verbosity,
                   "category \"%s\": level %d enabled %d verbosity %u, model %d %d %u", name, hub.level(n),
                   hub.enabled(n), hub.verbosity(n), c.level, c.enabled, c.verbosity);
    }
    unsigned int past = static_cast<unsigned int>(model.names.size());
    FUZZ_CHECK(hub.getCategory(past) == nullptr, "a category beyond the model's");
}

// A text without NULs or colons-only noise trimmed: the environment keeps it whole.
std::string text(FuzzedDataProvider& in, size_t max) { return std::string(in.ConsumeRandomLengthString(max).c_str()); }

char const* const kVariables[] = {"ZOUTILS_LOG_LEVEL", "ZOUTILS_LOG_VERBOSITY", "ZOUTILS_LOG_ENABLED",
                                  "ZOUTILS_LOG_CATEGORIES"};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Only the environment takes part: no file can be found.
    setenv("XDG_CONFIG_HOME", "/nonexistent-zo-fuzz", 1);
    setenv("XDG_CONFIG_DIRS", "/nonexistent-zo-fuzz", 1);
    unsetenv("ZOSYS_CONFIG");
    unsetenv("ZOUTILS_LOG_LOGGER");
    unsetenv("ZOUTILS_LOG_FILENAME");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
    FuzzedDataProvider in(data, size);
    unsigned int present = in.ConsumeIntegral<uint8_t>();
    std::string values[4];
    for (int i = 0; i < 4; ++i) {
        values[i] = text(in, i == 3 ? 200 : 16);
        if (present & (1u << i))
            setenv(kVariables[i], values[i].c_str(), 1);
        else
            unsetenv(kVariables[i]);
    }

    // What the hub reads at construction; the number reader has a target of its own.
    Model model;
    int value;
    if (ZoIF_GetConfigNumber("ZoUtils.Log.Level", &value) == 0) model.setLevel(value);
    if (ZoIF_GetConfigNumber("ZoUtils.Log.Verbosity", &value) == 0) model.setVerbosity(static_cast<unsigned int>(value));
    unsigned int enabledValue = 1;
    if (ZoIF_GetConfigNumber("ZoUtils.Log.Enabled", &value) == 0) {
        enabledValue = static_cast<unsigned int>(value);
        if (enabledValue > 2) enabledValue = 0;
    }
    model.setEnabled(enabledValue == 2);
    if ((present & 8) && values[3].size() < 1024) model.enableList(values[3], enabledValue != 0);

    Utils::Log* hub = new Utils::Log();
    compare(*hub, model);

    while (in.remaining_bytes() > 0) {
        switch (in.ConsumeIntegralInRange<int>(0, 5)) {
            case 0:
            case 1: {
                bool on = in.ConsumeBool();
                std::string list = text(in, 48);
                hub->enableCategories(list.c_str(), on);
                model.enableList(list, on);
                break;
            }
            case 2: {
                std::string name = text(in, 12);
                unsigned int n = hub->getCategory(name.c_str());
                model.get(name);
                FUZZ_CHECK(model.names[n] == name, "getCategory(\"%s\") gave %u", name.c_str(), n);
                break;
            }
            case 3: {
                int l = in.ConsumeIntegralInRange<int>(-5, 9);
                hub->setLevel(l);
                model.setLevel(l);
                break;
            }
            case 4: {
                bool e = in.ConsumeBool();
                hub->setEnabled(e);
                model.setEnabled(e);
                break;
            }
            default: {
                unsigned int v = in.ConsumeIntegralInRange<unsigned int>(0, 3);
                hub->setVerbosity(v);
                model.setVerbosity(v);
                break;
            }
        }
        compare(*hub, model);
    }
    delete hub;
    return 0;
}
