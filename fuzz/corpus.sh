# Sourced by fuzz/run.sh and bench/fuzz_rate.sh: the kept corpus of each
# target is one compressed archive, fuzz/corpus/<target>.tar.gz. Its inputs
# are slices of hives that share most of their bytes: packed they take a
# tenth of the room (0.9 MB instead of 8), which keeps the repository small
# while the corpus keeps every input that reaches new code.

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
