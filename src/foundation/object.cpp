#include "utils/object.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>

namespace Utils {

Countable::Countable() : count(0) {}
void Countable::incRef() { ++count; }
unsigned int Countable::decRef() { return --count; }
unsigned int Countable::refCount() const { return count; }

Object::Object() {}
Object::~Object() {}

void* Object::operator new(unsigned long size) noexcept {
    // The library's throwing form returns null on exhaustion, so this never throws;
    // a foreign one (a sanitizer's) that throws ends the process here instead.
    return ::operator new(size);
}
void Object::operator delete(void* p) { ::operator delete(p); }

Problem::Problem(char const* format, ...) {
    // Formatted on the stack and cut at 511 characters: the message is never
    // reallocated to fit. vsnprintf is given the whole 512-byte buffer: a limit of
    // 511 would keep only 510 characters, one short of the promised 511.
    char buffer[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    buffer[511] = '\0';
    text = new char[std::strlen(buffer) + 1];
    std::strcpy(text, buffer);
}

Problem::Problem(Problem const& other) {
    text = new char[std::strlen(other.text) + 1];
    std::strcpy(text, other.text);
}

}  // namespace Utils
