// The package as the appliance's package manager sees it, and the removal of
// the sync service's repositories.
#pragma once

// Whether the package is enabled on the appliance: the marker file
// /var/packages/Tidepool/enabled, which the installation lays down and which
// is removed while the package is switched off. The service's own status
// word is another matter (ServiceStatusGet).
bool SyncIsPkgEnable();

// Removes the sync service's repository ("<volume>/@tidepool") from every
// volume of the host. A running daemon is stopped first, so that nothing
// writes into a repository while it goes. 0 when every repository is gone,
// -1 when one could not be removed.
int RemoveDftwRepoInAllVolume();
