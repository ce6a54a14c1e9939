// Finding cameras and asking one of them: surveys merged per camera, a camera by MAC address,
// address or name, and a request with its repeats.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "net.h"
#include "output.h"
#include "wire.h"

namespace finder {

/// Exit status of the program, as its manual page documents it.
enum class Exit : int { ok = 0, no_answer = 1, usage = 2, refused = 3, pending = 4, duplicate = 5, failed = 6 };

/// Thrown to end a command: the exit status and one sentence for standard error.
struct Failure {
  Exit status;
  std::string sentence;
};

/// Where and how long to look.
struct Network {
  std::vector<Port> ports;
  Milliseconds time;
  bool broadcast_credentials = false;            // to everybody on the network, when a camera is silent
  [[nodiscard]] std::string interfaces() const;  // "eth0, wlan0"
};

struct Camera {
  Mac mac{};
  in_addr from{};              // where its last answer came from
  const Port* port = nullptr;  // by which interface
  std::optional<Survey> survey;
  std::optional<ServiceSurvey> service;
  [[nodiscard]] std::string name() const;  // as the camera sent it
};

/// Sends both surveys to every camera, several times, for the whole time; a camera that was reached
/// by several interfaces appears once. `came` gets each camera as soon as both of its answers are there, at the end at
/// the latest. Sorted by address. Throws Failure when nothing could be sent.
std::vector<Camera> survey(const Network& network, const std::function<void(const Camera&)>& came = {});

/// The camera of a MAC address, an IPv4 address or a camera name (letters' case doesn't matter).
/// Throws Failure when none answers or several have the name.
Camera find_camera(const Network& network, const std::string& which);

/// A request of an operation that is for anyone.
Request question(Op op);

/// Sends the request to the camera, directly at first and by broadcast too when it stays silent (credentials only if
/// the network says so), and returns its reply; `sends` tells how often it was sent. Tag and MAC are filled in. Throws
/// Failure when no reply came, when it has a wrong size, or when the camera refused the credentials.
Reply ask(const Network& network, const Camera& camera, Request request, int* sends = nullptr);

/// As ask(), for so long; nothing when no reply came.
std::optional<Reply> ask_for(const Network& network, Milliseconds time, const Camera& camera, Request request,
                             int* sends = nullptr);

/// All that the surveys told; keys as in the manual page.
Record camera_record(const Camera& camera);

/// The items that begin the JSON of an operation: which camera it was.
Record whose(const Camera& camera);

}  // namespace finder
