#ifndef EMUPHONE_IOCTL_HOOKS_H
#define EMUPHONE_IOCTL_HOOKS_H

/* The process's ioctl(), close() and bind(), defined in C so that their
 * declarations match the C library's exactly. Linked into the executable and
 * exported from it, they come before umockdev's preload (and AddressSanitizer's)
 * in symbol lookup, so libusb's and libudev's calls reach the hooks first;
 * whatever a hook declines goes on to the next definition. */

struct sockaddr;

#ifdef __cplusplus
extern "C" {
#endif

/* Returns non-zero when it handled the request and stored its result (errno set). */
typedef int (*EmuphoneIoctlHook)(int fd, unsigned long request, void* argument, int* result);
/* Told about every close() before it happens. */
typedef void (*EmuphoneCloseHook)(int fd);

/* Told about every close() (address NULL) and bind() before it happens; returns
 * non-zero when the call changes a uevent listener, and then hears of its end. */
typedef int (*EmuphoneListenerChangeHook)(int fd, const struct sockaddr* address);
typedef void (*EmuphoneListenerChangedHook)(void);

void emuphone_set_hooks(EmuphoneIoctlHook ioctlHook, EmuphoneCloseHook closeHook);
void emuphone_set_listener_hooks(EmuphoneListenerChangeHook change, EmuphoneListenerChangedHook changed);
/* Non-zero when the process's ioctl symbol resolves to ours: the executable
 * linked this code and exports it. */
int emuphone_hooks_reach_libraries(void);

#ifdef __cplusplus
}
#endif

#endif
