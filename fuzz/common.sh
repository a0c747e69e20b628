# Sourced by fuzz/run.sh and bench/fuzz_rate.sh: the targets' flags and
# their kept corpus.

# Input size limits: a hive of a few hbins (the largest built seed, with a
# db value, is 44 KiB; most are 8-12 KiB), logs beside a slice of one,
# texts, paths of a few levels (each level is a key made, checked and
# deleted again: 64 bytes reach the same code as 160 at twice the runs).
# Registry text keeps its meaning when cut, and 4 KiB of it reach what 16
# do (the same edges after a 1,000,000-run session) at twice the runs:
# each section line can make keys.
declare -A maxLen=([open]=49152 [log]=65536 [regfile]=4096 [path]=64 [pattern]=4096)

# The default (entropic) scheduler's bookkeeping of rare features costs a
# third to a half of each run of the hive targets (a run hits thousands of
# features); without it they get through 1.3-1.7 times as many inputs.
# The pattern target's runs are short and it does better with it.
declare -A entropic=([pattern]=1)

# No allocation stacks while fuzzing, and a smaller quarantine: recording a
# stack for every allocation and free cost the hive targets a fifth of each
# run (a run allocates thousands of small objects), and touching fresh
# pages while 256 MB of freed memory waits cost more. A run allocates far
# less than 16 MB, so a use after free within it is still caught. The
# report of a finding then lacks where the memory was allocated and freed:
# fuzz/run.sh replays every finding with FINDING_ASAN_OPTIONS, which record
# them in full.
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:malloc_context_size=0:quarantine_size_mb=16}
FINDING_ASAN_OPTIONS=detect_leaks=1:malloc_context_size=30
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

# The kept corpus of each target is one compressed archive,
# fuzz/corpus/<target>.tar.gz. Its inputs are slices of hives that share
# most of their bytes: packed they take a tenth of the room (0.6 MB instead
# of 6.9), which keeps the repository small while the corpus keeps every
# input that reaches new code.

# unpack_corpus TARGET DIR: writes the target's kept inputs into DIR (made
# if missing; nothing when the target keeps none).
unpack_corpus() {
  mkdir -p "$2"
  if [ -f "fuzz/corpus/$1.tar.gz" ]; then
    tar -xzf "fuzz/corpus/$1.tar.gz" -C "$2"
  fi
}

# pack_corpus TARGET DIR: replaces the target's archive with DIR's files,
# in a stable order and without times or owners, so that the same inputs
# give the same bytes.
pack_corpus() {
  mkdir -p fuzz/corpus
  (cd "$2" && find . -maxdepth 1 -type f -printf '%P\n' | LC_ALL=C sort |
    tar --owner=0 --group=0 --numeric-owner --mtime=@0 --mode=0644 -cf - -T -) |
    gzip -9n >"fuzz/corpus/$1.tar.gz"
}
