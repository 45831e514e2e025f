// The download record and folder, shared by the download handlers.
#pragma once

#include <string>

// One download per user: the record's owner is the caller's name.
inline constexpr const char* kDownloadTaskName = "dftw_download_progress";

// Whether `path` is a folder that start makes: <system volume>/@tmp/Tidepool.*.
// Only such a folder is ever sent or removed as root.
bool IsDownloadFolder(const std::string& path);
// Removes a download folder and everything in it, as root; a missing
// folder is no error.
void RemoveDownloadFolder(const std::string& path);
