// libsptcontrol.so: the camera's remote-access status service, which shows the state to the camera's
// web pages and indicators. The camera maker supplies the library.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/// Tells the status service whether the remote-access service is on line: 1 on line, 0 off line.
/// The result is not used by callers. Main thread only.
int SetSptOnLineStatus(int online);

/// Publishes the service's URI (at most 127 characters). The text is copied before the call returns.
/// The result is not used by callers. Main thread only.
int SetSptURI(const char* uri);

#ifdef __cplusplus
}
#endif
