// The gates of the services that raise, for an image.
#pragma once

namespace embedded {

// What an image's import slot points to for a service that may raise; null for one that does not.
void *RaisingGate(const char *Service);

} // namespace embedded
