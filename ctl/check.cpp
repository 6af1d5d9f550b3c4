#include "ctl/ctl.h"

#include <fcntl.h>
#include <libgen.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "ctl/check.h"
#include "ctl/findings.h"
#include "runtime/options.h"
#include "runtime/text.h"

constexpr int STATUS_NO_CONFIG = 2;
static const char k_config_name[] = "config.ini";

// Goes where the agent would run. 0, or -1 after a message.
static int directory_enter(const char *config_path)
{
    char directory[1024], name[1024];
    (void)text_set(directory, config_path);
    (void)text_set(name, config_path);
    if (strcmp(basename(name), k_config_name) != 0) {
        fprintf(stderr, "the agent reads only files that are called %s\n", k_config_name);
        return -1;
    }
    if (chdir(dirname(directory)) != 0) {
        fprintf(stderr, "no directory: %s\n", directory);
        return -1;
    }
    return 0;
}

int ctl_check(const char *config_path)
{
    if (directory_enter(config_path) != 0)
        return STATUS_NO_CONFIG;
    findings_listen();
    check_config();
    if (check_init_cfg())
        check_world();
    return findings_print();
}
