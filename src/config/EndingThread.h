#pragma once

#include <memory>

namespace velmora {

// Ends an object on the process's ending thread. For an object whose last owner let go on the
// object's own thread (a queue or an event loop cannot join itself): ending it there instead
// joins that thread once the current callback has returned. The ending thread is joined when the
// process exits, before the static objects made ahead of it are destroyed, so no object's thread
// is still running while the log and the other process-wide services go away.
void endOnEndingThread(std::shared_ptr<void> object);

}  // namespace velmora
