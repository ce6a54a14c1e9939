// The state handlers, one a state. Each does one state's work and writes the next state before it
// returns; a handler that leaves the state alone is called again on the main loop's next turn.
#pragma once

namespace kestrel {

struct DeviceContext;

void go_START(DeviceContext* ctx);
void go_IpReady(DeviceContext* ctx);
void go_InternetReady(DeviceContext* ctx);
void go_NATMode(DeviceContext* ctx);
void go_PublicMode(DeviceContext* ctx);
void go_UPnP(DeviceContext* ctx);
void go_NoUPnP(DeviceContext* ctx);
void go_UPnP_A(DeviceContext* ctx);
void go_UPnP_B(DeviceContext* ctx);
void go_NATU(DeviceContext* ctx);
void go_NAT1(DeviceContext* ctx);
void go_NATM(DeviceContext* ctx);
void go_UpnpPfReady(DeviceContext* ctx);
void go_UpnpPfFailed(DeviceContext* ctx);
void go_LumenDevPartDone(DeviceContext* ctx);
void go_LumenDevDone(DeviceContext* ctx);
void go_LumenDevNotReady(DeviceContext* ctx);

}  // namespace kestrel
