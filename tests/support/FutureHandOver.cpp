// Built into the tests only under ThreadSanitizer.
//
// A QFuture hands its result or error from the thread that finishes it to the thread that waits
// for it under Qt's own locks, and counts its holders with Qt's atomics: Qt is not built with
// ThreadSanitizer, so it sees neither, and every answer read on another thread looks raced.
// These definitions stand in for the QFutureInterfaceBase entry points that our code calls (an
// executable's definitions come before a library's), tell ThreadSanitizer about the hand-over
// each of them makes, and call Qt's own.

#include <QFutureInterface>

#include <dlfcn.h>
#include <sanitizer/tsan_interface.h>

namespace {

// The future's shared state, the one thing all copies of a future have in common: the only
// member after the virtual table.
struct Layout {
    void *vtable;
    void *state;
};
static_assert(sizeof(QFutureInterfaceBase) == sizeof(Layout));

void *stateOf(const void *future)
{
    return static_cast<const Layout *>(future)->state;
}

template<typename Function> Function qt(const char *symbol)
{
    void *found = dlvsym(RTLD_NEXT, symbol, "Qt_6");
    if (!found)
        __builtin_trap();
    return reinterpret_cast<Function>(found);
}

// What the finishing thread did before it answered is seen by whoever waits for the answer.
void published(const void *future)
{
    if (void *state = stateOf(future))
        __tsan_release(state);
}

void received(const void *future)
{
    if (void *state = stateOf(future))
        __tsan_acquire(state);
}

} // namespace

#define QFI "_ZN20QFutureInterfaceBase"
#define QFI_CONST "_ZNK20QFutureInterfaceBase"

extern "C" {

void reportFinished(void *self) __asm__(QFI "14reportFinishedEv");
void reportFinished(void *self)
{
    static const auto original = qt<void (*)(void *)>(QFI "14reportFinishedEv");
    published(self);
    original(self);
}

void reportResultsReady(void *self, int begin, int end) __asm__(QFI "18reportResultsReadyEii");
void reportResultsReady(void *self, int begin, int end)
{
    static const auto original = qt<void (*)(void *, int, int)>(QFI "18reportResultsReadyEii");
    published(self);
    original(self, begin, end);
}

// The waits rethrow the future's error from inside Qt, so the hand-over is told before that.
void waitForFinished(void *self) __asm__(QFI "15waitForFinishedEv");
void waitForFinished(void *self)
{
    static const auto original = qt<void (*)(void *)>(QFI "15waitForFinishedEv");
    try {
        original(self);
    } catch (...) {
        received(self);
        throw;
    }
    received(self);
}

void waitForResult(void *self, int index) __asm__(QFI "13waitForResultEi");
void waitForResult(void *self, int index)
{
    static const auto original = qt<void (*)(void *, int)>(QFI "13waitForResultEi");
    try {
        original(self, index);
    } catch (...) {
        received(self);
        throw;
    }
    received(self);
}

bool isFinished(const void *self) __asm__(QFI_CONST "10isFinishedEv");
bool isFinished(const void *self)
{
    static const auto original = qt<bool (*)(const void *)>(QFI_CONST "10isFinishedEv");
    const bool finished = original(self);
    if (finished)
        received(self);
    return finished;
}

bool hasException(const void *self) __asm__(QFI_CONST "12hasExceptionEv");
bool hasException(const void *self)
{
    static const auto original = qt<bool (*)(const void *)>(QFI_CONST "12hasExceptionEv");
    const bool has = original(self);
    if (has)
        received(self);
    return has;
}

// Letting go of a future: the last holder frees the results (in our code, after this answers
// false), so it must see what every other holder did before letting go.
bool derefT(const void *self) __asm__(QFI_CONST "6derefTEv");
bool derefT(const void *self)
{
    static const auto original = qt<bool (*)(const void *)>(QFI_CONST "6derefTEv");
    published(self);
    const bool stillHeld = original(self);
    if (!stillHeld)
        received(self);
    return stillHeld;
}

// The state itself (and a stored error) goes inside Qt's destructor, which does not say whether
// it was the last holder: every holder publishes and receives on its way out.
void destroyFuture(void *self) __asm__(QFI "D2Ev");
void destroyFuture(void *self)
{
    static const auto original = qt<void (*)(void *)>(QFI "D2Ev");
    published(self);
    received(self);
    original(self);
}

void destroyWholeFuture(void *self) __asm__(QFI "D1Ev");
void destroyWholeFuture(void *self)
{
    static const auto original = qt<void (*)(void *)>(QFI "D1Ev");
    published(self);
    received(self);
    original(self);
}

} // extern "C"
