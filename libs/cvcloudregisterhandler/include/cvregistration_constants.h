#ifndef CVREGISTRATION_CONSTANTS_H
#define CVREGISTRATION_CONSTANTS_H

/// @file
/// The names of messages, of their members and of cloud methods. Texts that live as long as the library.

#include "cvregistration_export.h"

/// The registration of the box with the maker's cloud.
namespace cv::registration {

/// @name Messages of the local exchange
/// @{

/// Command: register the box. Its payload is described by kToken, kTokenType and kRegisterMacAddress.
CV_EXPORT extern const char* const kStartCloudRegMsg;
/// Command: resume the registration that failed. It has no payload.
CV_EXPORT extern const char* const kRetryCloudRegMsg;
/// Published at the end of a registration that succeeded, with the body of the success.
CV_EXPORT extern const char* const kCloudRegDoneMsg;

/// @}

/// @name Members of the start command's payload
/// @{

/// The requester's token: a text, not empty.
CV_EXPORT extern const char* const kToken;
/// The kind of the token: "partner" or "temporary".
CV_EXPORT extern const char* const kTokenType;
/// The MAC address to register; missing or empty for that of the configured interface.
CV_EXPORT extern const char* const kRegisterMacAddress;

/// @}

/// @name Cloud services and their methods
/// A registration step is named after the method that it calls.
/// @{

/// The service of both login methods.
CV_EXPORT extern const char* const kLoginService;
/// Exchanges a partner token for a user token.
CV_EXPORT extern const char* const kConnectMethod;
/// Exchanges a temporary token for a user token.
CV_EXPORT extern const char* const kGetDeviceTokenMethod;
/// The service that registers boxes.
CV_EXPORT extern const char* const kRegisterService;
/// Registers the box and returns its device id.
CV_EXPORT extern const char* const kRegisterMethod;

/// @}

/// The box's identity in cloud requests until the cloud has assigned one.
CV_EXPORT extern const char* const kTemporaryDeviceId;

} // namespace cv::registration

#endif
