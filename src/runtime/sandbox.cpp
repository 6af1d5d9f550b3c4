#include "runtime/sandbox.h"

#include <errno.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "runtime/log.h"
#include "runtime/text.h"

constexpr int CAPABILITY_WORDS = _LINUX_CAPABILITY_U32S_3;

// Without CAP_SETPCAP the bounding set stays, which is of no use to a process that can gain nothing.
static void bounding_set_drop(void)
{
    for (unsigned long capability = 0; prctl(PR_CAPBSET_READ, capability, 0, 0, 0) >= 0; capability++)
        (void)prctl(PR_CAPBSET_DROP, capability, 0, 0, 0);
}

static int capabilities_drop(void)
{
    struct __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    struct __user_cap_data_struct none[CAPABILITY_WORDS] = {};
    bounding_set_drop();
    (void)prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0); // unknown to old kernels, which have no such set
    return (int)syscall(SYS_capset, &header, none);
}

int sandbox_enter(int32_t level)
{
    if (level == 0)
        return 0;
    if (level > 1)
        log_error("Sandbox: level %d is not built in, level 1 is used!", level);
    if (capabilities_drop() != 0) {
        log_error("Sandbox: capabilities cannot be dropped: %s!", error_text(errno).text);
        return -1;
    }
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
        log_error("Sandbox: new privileges cannot be forbidden: %s!", error_text(errno).text);
        return -1;
    }
    log_info("Sandbox: no capabilities, no new privileges.");
    return 0;
}
