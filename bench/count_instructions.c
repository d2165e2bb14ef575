/* Plugin of QEMU's user-mode emulators (plugin interface 1): counts the instructions that the program executes. The
   count stands in the file that the argument names, eight bytes in the machine's order, and can be read at any time. */
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

/* What is used of qemu-plugin.h, which Debian does not package. */
struct qemu_plugin_tb;
enum qemu_plugin_op { QEMU_PLUGIN_INLINE_ADD_U64 };
typedef void (*tb_translated)(uint64_t id, struct qemu_plugin_tb* tb);
void qemu_plugin_register_vcpu_tb_trans_cb(uint64_t id, tb_translated callback);
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb* tb);
void qemu_plugin_register_vcpu_tb_exec_inline(struct qemu_plugin_tb* tb, enum qemu_plugin_op op, void* count,
                                              uint64_t value);
int qemu_plugin_install(uint64_t id, const void* info, int argc, char** argv);

extern int qemu_plugin_version;
int qemu_plugin_version = 1;

static uint64_t* count;

static void count_block(uint64_t id, struct qemu_plugin_tb* tb) {
  (void)id;
  qemu_plugin_register_vcpu_tb_exec_inline(tb, QEMU_PLUGIN_INLINE_ADD_U64, count, qemu_plugin_tb_n_insns(tb));
}

int qemu_plugin_install(uint64_t id, const void* info, int argc, char** argv) {
  static const char NAME[] = "count=";
  (void)info;
  if (argc != 1 || strncmp(argv[0], NAME, sizeof NAME - 1) != 0) {
    fputs("count_instructions: one argument is needed, count=NAME\n", stderr);
    return 1;
  }
  const int file = open(argv[0] + sizeof NAME - 1, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (file < 0 || ftruncate(file, sizeof *count) != 0) {
    perror(argv[0]);
    return 1;
  }
  count = mmap(NULL, sizeof *count, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  close(file);
  if (count == MAP_FAILED) {
    perror("mmap");
    return 1;
  }
  qemu_plugin_register_vcpu_tb_trans_cb(id, count_block);
  return 0;
}
