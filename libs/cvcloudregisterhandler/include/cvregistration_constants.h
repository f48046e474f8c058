#ifndef CVREGISTRATION_CONSTANTS_H
#define CVREGISTRATION_CONSTANTS_H

#include "cvregistration_export.h"

namespace cv::registration {

// Messages of the local exchange.
CV_EXPORT extern const char* const kStartCloudRegMsg;
CV_EXPORT extern const char* const kRetryCloudRegMsg;
CV_EXPORT extern const char* const kCloudRegDoneMsg;

// Members of the start command's payload.
CV_EXPORT extern const char* const kToken;
CV_EXPORT extern const char* const kTokenType;
CV_EXPORT extern const char* const kRegisterMacAddress;

// Cloud services and their methods. A registration step is named after the method that it calls.
CV_EXPORT extern const char* const kLoginService;
CV_EXPORT extern const char* const kConnectMethod;
CV_EXPORT extern const char* const kGetDeviceTokenMethod;
CV_EXPORT extern const char* const kRegisterService;
CV_EXPORT extern const char* const kRegisterMethod;

// The box's identity in cloud requests until the cloud has assigned one.
CV_EXPORT extern const char* const kTemporaryDeviceId;

} // namespace cv::registration

#endif
