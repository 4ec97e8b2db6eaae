#include "input/MicAccess.h"

namespace MicAccess {

void requestIfNeeded() { }

} // namespace MicAccess
