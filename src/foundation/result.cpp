// Results and error reporting: per-task last errors, suppressed codes, registered
// texts and listeners.
//
// Invariants
//  - gResultLock guards the last-error table, the suppressed list, the text table
//    (pointer and tree) and the listener list (pointer and vector). It is never held
//    while logging or while a listener runs.
//  - The last-error table and the suppressed list are constant-initialised and
//    never destroyed by a static destructor: the unload step releases their storage
//    and leaves them empty, so a late raiseError (from another library's static
//    destructor, or a thread still running at exit) finds valid, empty tables.
//  - The text table and the listener list are made on first use and never freed.
//  - Generated texts: each thread formats into a 40-byte buffer of its own, made on
//    its first call and never freed, reused by another thread or moved, so a text
//    stays readable after its thread has ended. The buffers are chained from
//    gTextBuffers, which keeps them reachable until the process ends.
//  - raiseError can be reached when memory is exhausted, also from an allocation
//    made under one of the hub's or these tables' locks on the same thread. It then
//    only returns the code. An error raised while the same thread is logging an
//    error (a sink out of memory) is recorded and notified but not logged, so the
//    raising never recurses through the log without end (library/reentry.h draws
//    the cycle and its guards).
#include "utils/result.h"

#include <atomic>
#include <cstdio>
#include <new>

#include "foundation/result_tables.h"
#include "library/reentry.h"
#include "misc/constinit.h"
#include "platform/platform.h"
#include "utils/avltree.h"
#include "utils/log.h"
#include "utils/vector.h"
#include "zosys.h"

namespace Utils {

using detail::HeldLock;

namespace {

// Storage whose destructor never runs; the unload step empties the value instead.
template <class T>
union Undestroyed {
    constexpr Undestroyed() : value() {}
    ~Undestroyed() {}
    T value;
};

ZO_CONSTINIT platform::TableLock gResultLock;
Undestroyed<AVLTree<unsigned long, unsigned int>> gLastErrors;  // task -> last raised code
Undestroyed<Vector<unsigned int>> gSuppressed;                   // unordered, duplicates allowed
AVLTree<unsigned int, char const*>* gTexts = nullptr;            // code -> caller's text, not copied
Vector<ResultListener const*>* gListeners = nullptr;

// One thread's buffer for generated texts; see the invariants above.
struct TextBuffer {
    TextBuffer* next;
    char text[40];
};
std::atomic<TextBuffer*> gTextBuffers{nullptr};
thread_local TextBuffer* tTextBuffer = nullptr;
// Used by a call that finds no memory for its thread's buffer: shared by every such
// call and overwritten by the next one. The thread tries again on its next call.
char gSharedText[40];

char* textBuffer() {
    TextBuffer* b = tTextBuffer;
    if (b) return b->text;
    b = new (std::nothrow) TextBuffer;
    if (!b) return gSharedText;
    b->next = gTextBuffers.load(std::memory_order_relaxed);
    while (!gTextBuffers.compare_exchange_weak(b->next, b, std::memory_order_release, std::memory_order_relaxed)) {
    }
    tTextBuffer = b;
    return b->text;
}

unsigned long currentTask() { return static_cast<unsigned long>(ZoIF_CurrentTaskIdCoop()); }

// The source position the error line names.
constexpr char const* kRaiseFile = "result";
constexpr unsigned int kRaiseLine = 65;

using LastErrors = AVLTree<unsigned long, unsigned int>;

// Under gResultLock: the calling task's entry (made at 0 when missing), or null
// when memory is exhausted. Unlike AVLTree::intern it checks the node allocation,
// because raiseError is called exactly when memory runs out. Nodes never move, so
// the value's address stays valid while the lock is held.
unsigned int* lastErrorSlot(unsigned long task) {
    AVLTreeIter<unsigned long, unsigned int> it(gLastErrors.value);
    it.top();
    if (it.find(task)) return &it.value();
    void* raw = ::operator new(sizeof(LastErrors::Node), std::nothrow);
    if (!raw) return nullptr;
    LastErrors::Node* node = new (raw) LastErrors::Node(task, 0u, it.current);
    *it.link = node;
    it.rebalanceAfterInsert();
    return &node->value;
}

}  // namespace

ResultListener::~ResultListener() = default;

unsigned int raiseError(unsigned int code) {
    if (detail::heldLockDepth() != 0) return code;
    unsigned long task = currentTask();
    bool suppressed;
    {
        HeldLock<platform::TableLock> g(gResultLock);
        if (unsigned int* slot = lastErrorSlot(task)) *slot = code;
        unsigned long index;
        suppressed = gSuppressed.value.locate(code, index);
    }
    if (suppressed) return code;
    if (!detail::loggingError()) {
        detail::LoggingError busy;
        Log::theLog()->print(MessageError, "utils", -3, kRaiseFile, kRaiseLine, "Raising error: %s",
                             resultToString(code));
    }
    // The count is read again after every call: listeners added during the walk are
    // called in it; a listener that removes itself may make its successor skipped.
    for (unsigned long i = 0;; ++i) {
        ResultListener const* listener;
        {
            HeldLock<platform::TableLock> g(gResultLock);
            if (!gListeners || i >= gListeners->count) break;
            listener = (*gListeners)[i];
        }
        listener->resultRaised(code);
    }
    return code;
}

unsigned int lastError() {
    unsigned long task = currentTask();
    HeldLock<platform::TableLock> g(gResultLock);
    unsigned int* slot = lastErrorSlot(task);
    return slot ? *slot : 0u;
}

void clearError() {
    unsigned long task = currentTask();
    HeldLock<platform::TableLock> g(gResultLock);
    if (unsigned int* slot = lastErrorSlot(task)) *slot = 0u;
}

void setErrorSuppressed(unsigned int code) {
    HeldLock<platform::TableLock> g(gResultLock);
    gSuppressed.value.add(code);
}

void clearErrorSuppressed(unsigned int code) {
    HeldLock<platform::TableLock> g(gResultLock);
    gSuppressed.value.remove(code);
}

char const* resultToString(unsigned int code) {
    {
        HeldLock<platform::TableLock> g(gResultLock);
        if (gTexts) {
            AVLTreeIter<unsigned int, char const*> it = gTexts->find(code);
            if (it.valid()) return it.value();
        }
    }
    // The calling thread's buffer: its next call overwrites it, no other thread does.
    char* text = textBuffer();
    snprintf(text, 40, static_cast<int>(code) < 0 ? "Failure #0x%08x" : "Success #0x%08x", code);
    return text;
}

ResultString::ResultString(unsigned int c, char const* text) : code(c) {
    HeldLock<platform::TableLock> g(gResultLock);
    if (!gTexts) gTexts = new (std::nothrow) AVLTree<unsigned int, char const*>;
    // First registration wins: insert keeps an existing text.
    if (gTexts) gTexts->insert(code, text);
}

// Kept: removes the code's text whoever registered it.
ResultString::~ResultString() {
    HeldLock<platform::TableLock> g(gResultLock);
    if (gTexts) gTexts->remove(code);
}

void addResultListener(ResultListener const* listener) {
    HeldLock<platform::TableLock> g(gResultLock);
    if (!gListeners) gListeners = new (std::nothrow) Vector<ResultListener const*>;
    if (gListeners) gListeners->add(listener);
}

void removeResultListener(ResultListener const* listener) {
    HeldLock<platform::TableLock> g(gResultLock);
    if (gListeners) gListeners->remove(listener);
}

namespace detail {

void releaseResultTables() {
    HeldLock<platform::TableLock> g(gResultLock);
    gSuppressed.value.purge();
    gLastErrors.value.clear();
}

// The tables against their own invariants (see the top of this file): both trees
// sound, the suppressed list and the listener list sound vectors, no listener null,
// and the chain of text buffers finite.
char const* verifyResultTables() {
    HeldLock<platform::TableLock> g(gResultLock);
    if (char const* e = gLastErrors.value.verify()) return e;
    if (char const* e = gSuppressed.value.verify()) return e;
    if (gTexts)
        if (char const* e = gTexts->verify()) return e;
    if (gListeners) {
        if (char const* e = gListeners->verify()) return e;
        for (unsigned long i = 0; i < gListeners->count; ++i)
            if (!(*gListeners)[i]) return "result tables: a listener is null";
    }
    // Floyd's walk: a cycle would make the chain endless.
    TextBuffer const* slow = gTextBuffers.load(std::memory_order_acquire);
    TextBuffer const* fast = slow;
    while (fast && fast->next) {
        slow = slow->next;
        fast = fast->next->next;
        if (slow == fast) return "result tables: the text buffers form a cycle";
    }
    return nullptr;
}

}  // namespace detail

}  // namespace Utils
