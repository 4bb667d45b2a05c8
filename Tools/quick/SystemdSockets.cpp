// libdbus asks libsystemd for sockets that a server was started with. This program is no server, so
// the static libdbus gets these answers, and six libraries are not loaded.

extern "C" {

int sd_listen_fds(int unsetEnvironment);
int sd_is_socket(int descriptor, int family, int type, int listening);

int sd_listen_fds(int /*unsetEnvironment*/) { return 0; }
int sd_is_socket(int /*descriptor*/, int /*family*/, int /*type*/, int /*listening*/) { return 0; }

}  // extern "C"
