#include "config/TemporaryFolder.h"

namespace {
// Constructed before main(), so before the log first looks at the folders.
const velmora::testing::PrivateUserFolders privateUserFolders;
}  // namespace
