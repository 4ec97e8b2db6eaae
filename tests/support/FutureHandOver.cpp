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

// Qt's waits rethrow the future's error from inside, so the hand-over is told before that too.
template<typename Wait> void waited(const void *future, Wait wait)
{
    try {
        wait();
    } catch (...) {
        received(future);
        throw;
    }
    received(future);
}

// An answer of "finished" or "has an error" means the finishing thread's work is visible.
bool receivedIf(bool answer, const void *future)
{
    if (answer)
        received(future);
    return answer;
}

// A holder letting go: Qt's destructor does not say whether it was the last one (which frees the
// state and a stored error), so every holder publishes and receives on its way out.
void leaving(const void *future)
{
    published(future);
    received(future);
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

void waitForFinished(void *self) __asm__(QFI "15waitForFinishedEv");
void waitForFinished(void *self)
{
    static const auto original = qt<void (*)(void *)>(QFI "15waitForFinishedEv");
    waited(self, [&] { original(self); });
}

void waitForResult(void *self, int index) __asm__(QFI "13waitForResultEi");
void waitForResult(void *self, int index)
{
    static const auto original = qt<void (*)(void *, int)>(QFI "13waitForResultEi");
    waited(self, [&] { original(self, index); });
}

bool isFinished(const void *self) __asm__(QFI_CONST "10isFinishedEv");
bool isFinished(const void *self)
{
    static const auto original = qt<bool (*)(const void *)>(QFI_CONST "10isFinishedEv");
    return receivedIf(original(self), self);
}

bool hasException(const void *self) __asm__(QFI_CONST "12hasExceptionEv");
bool hasException(const void *self)
{
    static const auto original = qt<bool (*)(const void *)>(QFI_CONST "12hasExceptionEv");
    return receivedIf(original(self), self);
}

// The last holder of a typed future frees its results (in our code, once this answers false).
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

void destroyFuture(void *self) __asm__(QFI "D2Ev");
void destroyFuture(void *self)
{
    static const auto original = qt<void (*)(void *)>(QFI "D2Ev");
    leaving(self);
    original(self);
}

void destroyWholeFuture(void *self) __asm__(QFI "D1Ev");
void destroyWholeFuture(void *self)
{
    static const auto original = qt<void (*)(void *)>(QFI "D1Ev");
    leaving(self);
    original(self);
}

} // extern "C"
