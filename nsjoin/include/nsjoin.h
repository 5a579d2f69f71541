#pragma once

/// The network namespace that the system's own daemons live in.
#define DEFAULT_NS "default"

#define NSJOIN_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/// Moves the calling thread, and no other, into the network namespace `name`: a file of that name
/// in /var/run/netns, as `ip netns add` makes it. DEFAULT_NS without such a file is the namespace
/// of process 1. `nstype` is CLONE_NEWNET, or 0 for whatever kind the file is.
///
/// Returns 0, or -1 with errno and the thread where it was. A null or empty name or one with a
/// "/" is EINVAL; a name that nobody made ENOENT; without CAP_SYS_ADMIN it is EPERM.
/// Callable from any thread; leaves no descriptor open, not even across an exec in another thread.
NSJOIN_API int setnsByName(char const* name, int nstype);

/// Why the calling thread's last failed setnsByName() failed:
/// "setnsByName(<name>): <step>: <reason>"; "" before the first failure. The text is the thread's
/// own and lasts until its next failure.
NSJOIN_API char const* netnsGetTracebuffer(void);

#ifdef __cplusplus
}
#endif
