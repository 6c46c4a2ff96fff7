// The daemon's bus service: the object "tarn" and the "userconfig.reload" listener, on the
// platform's ubus where its libraries exist (TARN_HAVE_UBUS), else on the embedded bus at
// TARN_BUS_SOCKET_PATH. Called from the main thread, which then serves every request.
#pragma once

// Connects to the bus, adds the object and registers the event listener. 0 on success, -1
// with a logged reason otherwise.
int ubus_init();

// Logs "ubus init success, uloop run.\n" and serves requests until SIGINT or SIGTERM.
void ubus_loop_run();

// Releases the bus connection and logs "ubus free success.\n".
void ubus_teardown();
