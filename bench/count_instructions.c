// SPDX-License-Identifier: Apache-2.0
/* count_instructions.c - a plugin of qemu-user that counts the instructions a program executes, and
 * prints the sum when the program ends. bench/instructions compiles and uses it.
 *
 * QEMU's header for plugins is not packaged: the declarations below are version 1 of its interface.
 * The emulator adds inside its own translated code, so nothing is called per block. */
#include <inttypes.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#define EXPORTED __attribute__((visibility("default")))

typedef uint64_t plugin_id;
struct qemu_info;
struct qemu_plugin_tb;
enum inline_operation { ADD_U64 = 0 };

void qemu_plugin_register_vcpu_tb_trans_cb(plugin_id id,
                                           void (*translated)(plugin_id, struct qemu_plugin_tb*));
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb* block);
void qemu_plugin_register_vcpu_tb_exec_inline(struct qemu_plugin_tb* block,
                                              enum inline_operation operation, void* sum,
                                              uint64_t addend);
void qemu_plugin_register_atexit_cb(plugin_id id, void (*ended)(plugin_id, void*), void* data);
void qemu_plugin_outs(const char* text);

EXPORTED int qemu_plugin_version = 1;

static uint64_t executed;

static void count_block(plugin_id id, struct qemu_plugin_tb* block) {
  (void)id;
  qemu_plugin_register_vcpu_tb_exec_inline(block, ADD_U64, &executed,
                                           qemu_plugin_tb_n_insns(block));
}

static void print_sum(plugin_id id, void* data) {
  char text[64];
  (void)id;
  (void)data;
  snprintf(text, sizeof text, "instructions: %" PRIu64 "\n", executed);
  qemu_plugin_outs(text);
}

EXPORTED int qemu_plugin_install(plugin_id id, const struct qemu_info* info, int argc,
                                 char** argv) {
  (void)info;
  (void)argc;
  (void)argv;
  qemu_plugin_register_vcpu_tb_trans_cb(id, count_block);
  qemu_plugin_register_atexit_cb(id, print_sum, NULL);
  return 0;
}
