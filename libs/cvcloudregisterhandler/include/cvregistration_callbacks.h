#ifndef CVREGISTRATION_CALLBACKS_H
#define CVREGISTRATION_CALLBACKS_H

/// @file
/// What the cloud access object calls with the responses to the module's requests.

struct cvtessel_response;

namespace cv::registration {

// The response callbacks. The cloud access object calls them on a thread of its own, exactly once for each
// request that it accepted, while the registration object exists. `user_data` is the request's 8-byte heap
// block, which the callback deletes. The response is given back before the callback returns.

/// Takes the user token out of the response to "connect" or "get_device_token". On success the token is the
/// cloud access object's before the registration object learns of it.
void get_user_token_callback(cvtessel_response* response, void* user_data);

/// As get_user_token_callback(), for the device id in the response to "register_box", which becomes the cloud
/// access object's identity.
void register_box_callback(cvtessel_response* response, void* user_data);

} // namespace cv::registration

#endif
