// Configuration of the log hub: the keys read once when a hub is built
// (initialiseFromConfig) and the category list syntax (enableCategories). The keys,
// their order and their meaning are listed at Log::initialiseFromConfig in
// utils/log.h.
//
// Invariants
//  - Configuration owns no state: it changes the hub only through its setters,
//    getCategory and setLogger, and a key that is absent leaves the hub alone.
//  - Every list item gets the hub's verbosity and, unless it names a level, the
//    hub's default level as they are when the item is read.
#include <cstdlib>
#include <cstring>
#include <new>

#include "utils/log.h"
#include "zosys.h"

namespace Utils {

void Log::enableCategories(char const* list, bool on) {
    size_t length = strlen(list) + 1;
    char* copy = new (std::nothrow) char[length];
    if (!copy) return;
    memcpy(copy, list, length);
    char* rest = nullptr;
    for (char* item = strtok_r(copy, ":", &rest); item; item = strtok_r(nullptr, ":", &rest)) {
        int lvl = level_.load(std::memory_order_relaxed);
        char* hash = strchr(item, '#');
        // Kept: a bare trailing '#' stays part of the name ("x#" names the category x#).
        if (hash && strlen(hash) > 1) {
            *hash = '\0';
            lvl = atoi(hash + 1);
        }
        getCategory(item, lvl, on, verbosity_.load(std::memory_order_relaxed));
    }
    delete[] copy;
}

void Log::initialiseFromConfig() {
    int value;
    if (ZoIF_GetConfigNumber("ZoUtils.Log.Level", &value) == 0) setLevel(value);
    if (ZoIF_GetConfigNumber("ZoUtils.Log.Verbosity", &value) == 0) setVerbosity(static_cast<unsigned int>(value));
    unsigned int enabledValue;
    if (ZoIF_GetConfigNumber("ZoUtils.Log.Enabled", &value) != 0) {
        setEnabled(false);
        enabledValue = 1;
    } else {
        enabledValue = static_cast<unsigned int>(value);
        if (enabledValue > 2) enabledValue = 0;
        setEnabled(enabledValue == 2);
    }
    char buffer[1024];
    if (ZoIF_GetConfigString("ZoUtils.Log.Categories", buffer, sizeof buffer) == 0)
        enableCategories(buffer, enabledValue != 0);
    if (ZoIF_GetConfigString("ZoUtils.Log.Logger", buffer, sizeof buffer) != 0) return;
    Logger* sink = nullptr;
    if (strcmp(buffer, "file") == 0) {
        bool named = ZoIF_GetConfigString("ZoUtils.Log.Filename", buffer, sizeof buffer) == 0;
        char mode[256];
        FileLogger::OpenMode openMode = FileLogger::Append;
        if (ZoIF_GetConfigString("ZoUtils.Log.FileOpenMode", mode, sizeof mode) == 0 && strcmp(mode, "replace") == 0)
            openMode = FileLogger::Replace;
        if (!named) return;
        sink = new FileLogger(buffer, openMode);
    } else if (strcmp(buffer, "system") == 0) {
        sink = new SystemLogger(nullptr);
    } else if (strcmp(buffer, "null") == 0) {
        sink = new NullLogger;
    }
    // Kept: "stdout" (like any other word) makes no sink; the default one, on
    // standard error, stays.
    if (sink) setLogger(sink);
}

}  // namespace Utils
