// Surveys, the choice of a camera, and requests to one camera.
#include "cameras.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <random>
#include <set>
#include <string_view>
#include <utility>

namespace finder {
namespace {

constexpr int send_attempts = 4;

struct Target {
  Mac mac = any_camera;
  std::optional<in_addr> address;  // asked directly, besides the broadcast
};

std::uint16_t random_tag() {
  return static_cast<std::uint16_t>(std::random_device{}());
}

bool same(in_addr a, in_addr b) {
  return a.s_addr == b.s_addr;
}

// Adds what a survey reply tells to its camera's entry; null when it isn't a survey reply of ours.
const Camera* merge(std::vector<Camera>& cameras, const Answer& answer, std::uint16_t tag) {
  const Reply& reply = answer.reply;
  const Op op = static_cast<Op>(reply.opcode);
  const OpInfo* info = find_op(reply.opcode);
  if (reply.tag != tag || (op != Op::survey && op != Op::service_survey) ||
      reply.payload.size() != info->reply_length) {
    return nullptr;
  }
  auto camera = std::ranges::find(cameras, reply.mac, &Camera::mac);
  if (camera == cameras.end()) {
    cameras.push_back({reply.mac, answer.from, answer.port, {}, {}});
    camera = std::prev(cameras.end());
  }
  if (op == Op::survey) camera->survey = decode_survey(reply.payload);
  if (op == Op::service_survey) camera->service = decode_service_survey(reply.payload);
  return &*camera;
}

template <typename Enough>
std::vector<Camera> run_survey(const Network& network, const Target& target, Enough enough) {
  std::vector<Camera> cameras;
  const std::uint16_t tag = random_tag();
  int sent = 0;
  const auto send = [&](int) {
    for (const Op op : {Op::survey, Op::service_survey}) {
      const auto datagram = encode({tag, op, target.mac, {}, {}, {}});
      for (const Port& port : network.ports) {
        if (target.address && port.send(*target.address, datagram)) ++sent;
        if (port.send(port.broadcast, datagram)) ++sent;
      }
    }
  };
  exchange(network.ports, network.time, send_attempts, send, [&](const Answer& answer) {
    const Camera* camera = merge(cameras, answer, tag);
    return camera != nullptr && enough(*camera, answer);
  });
  if (sent == 0) {
    throw Failure{Exit::failed,
                  fmt::format("nothing could be sent on {}: {}", network.interfaces(), std::strerror(errno))};
  }
  return cameras;
}

[[noreturn]] void no_answer(const Network& network, const std::string& which) {
  const double seconds = std::chrono::duration<double>(network.time).count();
  throw Failure{Exit::no_answer,
                fmt::format("camera {} did not answer on {} within {:g} s; see that it is on and on this "
                            "network, or give it longer with --timeout",
                            which, network.interfaces(), seconds)};
}

Camera find_by_name(const Network& network, const std::string& name) {
  std::vector<Camera> cameras = survey(network);
  std::erase_if(cameras, [&](const Camera& c) { return strcasecmp(c.name().c_str(), name.c_str()) != 0; });
  if (cameras.empty()) no_answer(network, '\'' + name + '\'');
  if (cameras.size() == 1) return std::move(cameras.front());
  std::string all;
  for (const Camera& camera : cameras) all += (all.empty() ? "" : ", ") + to_text(camera.mac);
  throw Failure{Exit::usage,
                fmt::format("several cameras are called '{}' ({}); name one by its MAC address", name, all)};
}

// A server or router that the camera doesn't have.
std::string or_none(in_addr address) {
  return address.s_addr == INADDR_ANY ? "" : to_text(address);
}

std::string date_and_time(const std::string& digits) {
  if (digits.size() != 14 || digits.find_first_not_of("0123456789") != std::string::npos) return digits;
  const std::string_view d = digits;
  return fmt::format("{}-{}-{} {}:{}:{}", d.substr(0, 4), d.substr(4, 2), d.substr(6, 2), d.substr(8, 2),
                     d.substr(10, 2), d.substr(12, 2));
}

}  // namespace

std::string Network::interfaces() const {
  std::string all;
  for (const Port& port : ports) all += (all.empty() ? "" : ", ") + port.interface;
  return all;
}

std::string Camera::name() const {
  if (survey) return survey->name;
  return service ? service->name : std::string();
}

std::vector<Camera> survey(const Network& network, const std::function<void(const Camera&)>& came) {
  std::set<Mac> told;
  const auto tell = [&](const Camera& camera) {
    if (came && told.insert(camera.mac).second) came(camera);
  };
  auto cameras = run_survey(network, {}, [&](const Camera& camera, const Answer&) {
    if (camera.survey && camera.service) tell(camera);
    return false;
  });
  std::ranges::for_each(cameras, tell);
  std::ranges::sort(cameras, {}, [](const Camera& c) { return std::pair(ntohl(c.from.s_addr), c.mac); });
  return cameras;
}

Camera find_camera(const Network& network, const std::string& which) {
  Target target;
  in_addr address{};
  if (const auto mac = parse_mac(which)) {
    target.mac = *mac;
  } else if (inet_pton(AF_INET, which.c_str(), &address) == 1) {
    target.address = address;
  } else {
    return find_by_name(network, which);
  }
  const auto wanted = [&](const Camera& camera, const Answer& answer) {
    if (!target.address) return camera.mac == target.mac;
    return same(answer.from, address) || same(answer.reply.address, address);
  };
  std::optional<Camera> found;
  run_survey(network, target, [&](const Camera& camera, const Answer& answer) {
    if (!wanted(camera, answer)) return false;
    found = camera;
    found->from = answer.from;
    found->port = answer.port;
    return true;
  });
  if (!found) no_answer(network, which);
  return *found;
}

Request question(Op op) {
  Request request;
  request.op = op;
  return request;
}

std::optional<Reply> ask_for(const Network& network, Milliseconds time, const Camera& camera, Request request,
                             int* sends) {
  const OpInfo& info = *find_op(static_cast<std::uint16_t>(request.op));
  const bool may_broadcast = !info.needs_administrator || network.broadcast_credentials;
  request.tag = random_tag();
  request.mac = camera.mac;
  const auto datagram = encode(request);
  const auto send = [&](int attempt) {
    bool sent = camera.port->send(camera.from, datagram);
    // A camera whose address doesn't fit this network hears only broadcasts.
    if (may_broadcast && (attempt >= send_attempts / 2 || !sent))
      sent = camera.port->send(camera.port->broadcast, datagram);
    if (sent && sends != nullptr) ++*sends;
  };
  std::optional<Reply> reply;
  exchange(network.ports, time, send_attempts, send, [&](const Answer& answer) {
    const Reply& r = answer.reply;
    if (r.tag != request.tag || r.opcode != static_cast<std::uint16_t>(request.op) || r.mac != camera.mac) return false;
    reply = r;
    return true;
  });
  if (!reply) return std::nullopt;
  if (reply->authentication_refused()) {
    throw Failure{
        Exit::refused,
        fmt::format("the camera refused '{}' with this password; only its administrator may do this", request.user)};
  }
  if (reply->payload.size() != info.reply_length) {
    throw Failure{Exit::failed, fmt::format("the camera's answer to {} has {} bytes instead of {}", info.name,
                                            reply->payload.size(), info.reply_length)};
  }
  return reply;
}

Reply ask(const Network& network, const Camera& camera, Request request, int* sends) {
  const bool kept_back = find_op(static_cast<std::uint16_t>(request.op))->needs_administrator;
  auto reply = ask_for(network, network.time, camera, std::move(request), sends);
  if (reply) return std::move(*reply);
  if (!kept_back || network.broadcast_credentials) no_answer(network, to_text(camera.mac));
  throw Failure{Exit::no_answer,
                fmt::format("camera {} did not answer a request with credentials, which went to {} alone; give it "
                            "longer with --timeout, or with --broadcast send them to everybody on {}",
                            to_text(camera.mac), to_text(camera.from), network.interfaces())};
}

Record whose(const Camera& camera) {
  return {{"mac", nullptr, to_text(camera.mac)},
          {"address", nullptr, to_text(camera.from)},
          {"interface", nullptr, camera.port->interface}};
}

Record camera_record(const Camera& camera) {
  const auto number = [](auto value) { return std::uint64_t{value}; };
  Record r{{"name", "NAME", camera.name()},
           {"address", "ADDRESS", to_text(camera.from)},
           {"mac", "MAC", to_text(camera.mac)},
           {"interface", "INTERFACE", camera.port->interface}};
  const auto both = [&](const auto& s) {
    r.insert(r.end(), {{"brand", "BRAND", s.brand},
                       {"model", "MODEL", s.model},
                       {"oem_version", "VERSION", s.oem_version},
                       {"http_port", "PORT", number(s.http_port)}});
  };
  if (camera.survey) {
    both(*camera.survey);
  } else if (camera.service) {
    both(*camera.service);
  }
  if (camera.service) {
    const ServiceSurvey& s = *camera.service;
    r.insert(r.end(), {{"https", "HTTPS", s.https},
                       {"client_version", "CLIENT VERSION", s.client_version},
                       {"url", "SERVICE URL", s.url}});
  }
  if (camera.survey) {
    const Survey& s = *camera.survey;
    r.insert(r.end(), {{"product", "PRODUCT", s.product},
                       {"product_type", "PRODUCT TYPE", number(s.product_type)},
                       {"hardware", "HARDWARE", Hex{s.hardware}},
                       {"interface_mac", "INTERFACE MAC", to_text(s.interface_mac)},
                       {"interface_address", "INTERFACE ADDRESS", to_text(s.address)},
                       {"netmask", "NETMASK", to_text(s.mask)},
                       {"gateway", "GATEWAY", or_none(s.gateway)},
                       {"dns1", "DNS 1", or_none(s.dns1)},
                       {"dns2", "DNS 2", or_none(s.dns2)},
                       {"dhcp", "DHCP", s.dhcp},
                       {"local_time", "LOCAL TIME", date_and_time(s.local_time)},
                       {"timezone", "TIMEZONE", number(s.timezone)},
                       {"dst", "SUMMER TIME", s.dst}});
  }
  return r;
}

}  // namespace finder
