/* The peer's side of bench/compare.sh: the same work as hivekit_walk.cc,
 * through hivex's public C API only.
 *
 *   hivex_walk walk HIVE                 open, every key, every value, every
 *                                        value's full data, close; prints
 *                                        "KEYS VALUES BYTES"
 *   hivex_walk deep HIVE PATH NAME       open, the key at PATH (backslashes)
 *                                        by name, its value NAME, its data
 */
#include <hivex.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int walk(hive_h* h) {
  uint64_t keys = 0, values = 0, bytes = 0;
  size_t cap = 1024, n = 0;
  hive_node_h* stack = malloc(cap * sizeof *stack);
  if (!stack) return 1;
  stack[n++] = hivex_root(h);
  while (n > 0) {
    hive_node_h node = stack[--n];
    ++keys;
    hive_value_h* vs = hivex_node_values(h, node);
    for (size_t i = 0; vs && vs[i]; ++i) {
      hive_type t;
      size_t len = 0;
      char* data = hivex_value_value(h, vs[i], &t, &len);
      if (data) bytes += len;
      free(data);
      ++values;
    }
    free(vs);
    hive_node_h* subs = hivex_node_children(h, node);
    for (size_t i = 0; subs && subs[i]; ++i) {
      if (n == cap) {
        cap *= 2;
        hive_node_h* grown = realloc(stack, cap * sizeof *stack);
        if (!grown) return 1;
        stack = grown;
      }
      stack[n++] = subs[i];
    }
    free(subs);
  }
  free(stack);
  printf("%llu %llu %llu\n", (unsigned long long)keys, (unsigned long long)values, (unsigned long long)bytes);
  return 0;
}

static int deep(hive_h* h, char* path, const char* name) {
  hive_node_h node = hivex_root(h);
  for (char* part = strtok(path, "\\"); part && node; part = strtok(NULL, "\\"))
    node = hivex_node_get_child(h, node, part);
  if (!node) return 1;
  hive_value_h v = hivex_node_get_value(h, node, name);
  if (!v) return 1;
  hive_type t;
  size_t len = 0;
  char* data = hivex_value_value(h, v, &t, &len);
  if (!data) return 1;
  printf("%zu\n", len);
  free(data);
  return 0;
}

int main(int argc, char** argv) {
  if (argc < 3 || (strcmp(argv[1], "walk") == 0 ? argc != 3 : argc != 5)) {
    fprintf(stderr, "usage: hivex_walk walk HIVE | deep HIVE PATH NAME\n");
    return 2;
  }
  hive_h* h = hivex_open(argv[2], 0);
  if (!h) {
    perror(argv[2]);
    return 1;
  }
  int rc = strcmp(argv[1], "walk") == 0 ? walk(h) : deep(h, argv[3], argv[4]);
  hivex_close(h);
  return rc;
}
