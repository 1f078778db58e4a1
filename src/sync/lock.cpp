// Locks over the system layer. Each operation forwards to one system-layer call
// and hands its status back unchanged; nothing is interpreted here.
#include "utils/lock.h"

#include "zosys.h"

namespace Utils {

Lock::~Lock() {}

Mutex::Mutex() : handle(ZoIF_CreateMutex()) {}
Mutex::~Mutex() { ZoIF_DestroyMutex(handle); }
int Mutex::enter() const { return ZoIF_EnterMutex(handle); }
int Mutex::exit() const { return ZoIF_ExitMutex(handle); }

CriticalSection::CriticalSection() : handle(ZoIF_CreateCriticalSection()) {}
CriticalSection::~CriticalSection() { ZoIF_DestroyCriticalSection(handle); }
int CriticalSection::enter() const { return ZoIF_EnterCriticalSection(handle); }
int CriticalSection::exit() const { return ZoIF_ExitCriticalSection(handle); }

// The fields are stored before the lock is entered, so a debugger stopped inside
// a blocking enter() already sees who is waiting and from where.
Locker::Locker(Lock* lock, char const* file, unsigned int line) : lock(lock), file(file), line(line) {
    lock->enter();
}

Locker::~Locker() { lock->exit(); }

}  // namespace Utils
