#pragma once

// One download per user: the record's owner is the caller's name.
inline constexpr const char* kDownloadTaskName = "dftw_download_progress";
