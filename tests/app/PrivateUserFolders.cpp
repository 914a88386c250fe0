#include "config/TemporaryFolder.h"

namespace {
// Constructed before main(), so before the log or the settings store first look at the folders.
const velmora::testing::PrivateUserFolders privateUserFolders;
}  // namespace
