// A plugin of the emulator that counts the instructions of a program, and appends a line with their
// number to a file when the program, or a process that it forked, ends:
//
//     qemu-arm -plugin ./libcount.so,into=FILE PROGRAM
//
// The header of the emulator is not packaged, so the functions in use are declared here.

#include <inttypes.h>
#include <stdint.h>
#include <stdio.h>

typedef uint64_t qemu_plugin_id_t;
struct qemu_info;
struct qemu_plugin_tb;
enum qemu_plugin_op { QEMU_PLUGIN_INLINE_ADD_U64 };

void qemu_plugin_register_vcpu_tb_trans_cb(qemu_plugin_id_t id,
                                           void (*translated)(qemu_plugin_id_t id,
                                                              struct qemu_plugin_tb *block));
void qemu_plugin_register_vcpu_tb_exec_inline(struct qemu_plugin_tb *block,
                                              enum qemu_plugin_op what, void *counter,
                                              uint64_t number);
void qemu_plugin_register_atexit_cb(qemu_plugin_id_t id,
                                    void (*ended)(qemu_plugin_id_t id, void *data), void *data);
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb *block);

__attribute__((visibility("default"))) int qemu_plugin_version = 1;

static uint64_t instructions;
static char path[4096];

static void on_translated(qemu_plugin_id_t id, struct qemu_plugin_tb *block) {
    (void)id;
    qemu_plugin_register_vcpu_tb_exec_inline(block, QEMU_PLUGIN_INLINE_ADD_U64, &instructions,
                                             qemu_plugin_tb_n_insns(block));
}

static void on_end(qemu_plugin_id_t id, void *data) {
    (void)id;
    (void)data;
    FILE *file = fopen(path, "a");
    if (file == NULL)
        return;
    fprintf(file, "%" PRIu64 "\n", instructions);
    fclose(file);
}

__attribute__((visibility("default"))) int qemu_plugin_install(qemu_plugin_id_t id,
                                                               const struct qemu_info *info,
                                                               int count, char **arguments) {
    (void)info;
    if (count != 1 || sscanf(arguments[0], "into=%4095s", path) != 1)
        return -1;
    qemu_plugin_register_vcpu_tb_trans_cb(id, on_translated);
    qemu_plugin_register_atexit_cb(id, on_end, NULL);
    return 0;
}
