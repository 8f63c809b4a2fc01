#pragma once

#include <string_view>

/// Pieces of the uninstaller's messages that the inspector searches for. scripts/check-docs checks
/// that a message contains each of them.
namespace valta::inspect::messages {

inline constexpr std::string_view kError = "Error: ";
inline constexpr std::string_view kWarning = "Warning: ";

// How a run began and ended.
inline constexpr std::string_view kUtilitiesMissing = "Check utils failed.";
inline constexpr std::string_view kLoaded = " installed. Uninstall...";
inline constexpr std::string_view kUnloaded = "Successful to uninstall driver ";
inline constexpr std::string_view kBusy = "busy. The packaged driver";
inline constexpr std::string_view kRemovalFailed = "failed in removing.";
inline constexpr std::string_view kSucceeded = "Successfully uninstall driver.";
inline constexpr std::string_view kFailed = "Driver uninstall failed.";
inline constexpr std::string_view kClosing = "Driver uninstall log is in ";

// The result for a path of the manifest: the text before and after the path.
inline constexpr std::string_view kUninstall = "Uninstall: ";
inline constexpr std::string_view kRemoved = " Succeed.";
inline constexpr std::string_view kNotEmpty = " not empty skip.";
inline constexpr std::string_view kDigestOf = "Uninstall: md5sum of ";
inline constexpr std::string_view kChanged = " has changed. Skipping.";
inline constexpr std::string_view kNoDigest = " is empty. Skipping.";
inline constexpr std::string_view kUnitChanged = "'s md5 mismatch, skip remove.";
inline constexpr std::string_view kToolkitKeeps = "Toolkit not uninstalled. Skipping remove ";
inline constexpr std::string_view kProgramKeeps = "Driver not uninstalled. Skipping remove ";
inline constexpr std::string_view kDirectoryFailed = "catched ";

// Failed and skipped steps.
inline constexpr std::string_view kNotRemoved = " Failed.";
inline constexpr std::string_view kNotUnloaded = "Failed to uninstall driver ";
inline constexpr std::string_view kServiceRemains = "    service ";
inline constexpr std::string_view kServiceRemainsEnd = " may not being removed properly.";
inline constexpr std::string_view kDkmsRemove = "dkms remove valta/";
inline constexpr std::string_view kDkmsRemoveEnd = " --all";
inline constexpr std::string_view kSourcesRemain = "remove dkms src /usr/src/";
inline constexpr std::string_view kSourcesRemainEnd = " may failed.";
inline constexpr std::string_view kConfigurationRemains = "Clean up the old configuration file ";
inline constexpr std::string_view kConfigurationRemainsEnd = " failed, ";
inline constexpr std::string_view kDepmodFailed =
    "Failed to depmod, modprobe/modinfo might cant find ";
inline constexpr std::string_view kRmdir = " when rmdir ";
inline constexpr std::string_view kTypeOf = "Uninstall: type:";
inline constexpr std::string_view kDriverPrefix = "driver prefix is ";
inline constexpr std::string_view kUnknownType = "'s handler is not found.";
inline constexpr std::string_view kDkmsFailed = "Error happened in ";
inline constexpr std::string_view kInContainer = "in side docker";
inline constexpr std::string_view kNoManifest = "parse uninstall manifest error.";
inline constexpr std::string_view kFailedToRead = "Failed to read ";
inline constexpr std::string_view kFailedToOpen = "Failed to open ";

}  // namespace valta::inspect::messages
