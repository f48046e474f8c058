#ifndef CVREGISTRATION_GLOBALS_H
#define CVREGISTRATION_GLOBALS_H

/// @file
/// The two objects that all of the module reaches. init() and uninit() alone change them, on the daemon's
/// thread, before the worker starts and after it has ended.

#include "cvregistration_export.h"

class CvCloudAPI;

namespace cv::registration {
class RegistrationHandler;
}

/// The daemon's cloud access object: stored by the handler object's init(), never freed and never cleared
/// here. Null before the first init().
CV_EXPORT extern CvCloudAPI* g_cvcloud_api;

/// The one registration object: created by the handler object's init(), destroyed by its uninit(). Null
/// outside.
CV_EXPORT extern cv::registration::RegistrationHandler* g_registration_handler;

#endif
