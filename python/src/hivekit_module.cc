// hivekit._hivekit: the Python binding of the public C++ API.
//
// pybind11 makes the module, the Hive class and most methods. The objects a
// walk makes by the ten thousand (Key, Value and the iterators over
// subkeys and values) are CPython types with their hot members written as
// plain slots: pybind11's generic path (a typeid lookup, an instance
// registry and an argument dispatcher per call) would cost several times
// what the library spends reading the item. Their other methods are
// pybind11 functions attached to those types.
//
// The Python package (python/hivekit/__init__.py) adds what is simpler in
// Python: the exception classes, ValueType, datetimes and the HiveInfo
// record; it registers the first two back at import (_setup) so that this
// module raises the right exception and returns ValueType members.
//
// Every handle holds the hive's State. Calls that the C++ API answers
// without a status (Key::name, Value::type, ...) would give "" or 0 on a
// closed hive, so they check State::closed first and raise `closed`.
//
// Names cross as str: the library's UTF-8, with an unpaired surrogate as
// its three-byte form (WTF-8), decodes with 'surrogatepass' to a str
// holding that lone surrogate, and encodes back the same way.
#include <Python.h>
#include <pybind11/pybind11.h>

#include <hivekit/hivekit.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <new>
#include <utility>
#include <string>
#include <vector>

namespace py = pybind11;
using hivekit::Code;

namespace {

// ---------------------------------------------------------------- errors

// A failed call on its way to Python, where it becomes the exception class
// the package registered for its code.
struct HiveError {
  Code code;
  std::string message;
};

// Set by the package at import (_setup) and kept for the life of the
// process (plain references: nothing is released after the interpreter).
PyObject* g_make_error = nullptr;   // (code name, message) -> exception instance
PyObject* g_value_types = nullptr;  // tuple of the ValueType members by number

[[noreturn]] void raise(const hivekit::Status& s) {
  throw HiveError{s.code(), s.message()};
}

void check(const hivekit::Status& s) {
  if (!s.ok()) raise(s);
}

template <class T>
T take(hivekit::Result<T>&& r) {
  if (!r.ok()) raise(r.status());
  return std::move(*r);
}

PyObject* decode_raw(std::string_view utf8) {
  return PyUnicode_DecodeUTF8(utf8.data(), static_cast<Py_ssize_t>(utf8.size()), "surrogatepass");
}

py::str decode(std::string_view utf8) {
  PyObject* s = decode_raw(utf8);
  if (!s) throw py::error_already_set();
  return py::reinterpret_steal<py::str>(s);
}

void set_error(const HiveError& e) {
  const std::string_view name = hivekit::code_name(e.code);
  if (!g_make_error) {
    PyErr_SetString(PyExc_RuntimeError, e.message.c_str());
    return;
  }
  try {
    py::object exc = py::handle(g_make_error)(py::str(name.data(), name.size()), decode(e.message));
    PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(exc.ptr())), exc.ptr());
  } catch (py::error_already_set& failed) {
    failed.restore();
  }
}

// The current C++ exception as a Python error (for the CPython slots;
// pybind11 functions go through the registered translator).
void set_current_error() {
  try {
    throw;
  } catch (const HiveError& e) {
    set_error(e);
  } catch (py::error_already_set& e) {
    e.restore();
  } catch (const py::builtin_exception& e) {
    e.set_error();
  } catch (const std::bad_alloc&) {
    PyErr_NoMemory();
  } catch (const std::exception& e) {
    PyErr_SetString(PyExc_RuntimeError, e.what());
  } catch (...) {
    PyErr_SetString(PyExc_RuntimeError, "unknown C++ failure");
  }
}

template <class F>
auto guarded(F&& f, decltype(f()) failed) noexcept -> decltype(f()) {
  try {
    return f();
  } catch (...) {
    set_current_error();
    return failed;
  }
}

void translate(std::exception_ptr p) {
  try {
    std::rethrow_exception(p);
  } catch (const HiveError& e) {
    set_error(e);
  }
}

// ---------------------------------------------------------------- state

// One open hive, shared by every handle made from it. A Python object
// (never seen from Python): handles keep it with the interpreter's plain
// reference count, cheaper per handle than an atomic one. References are
// copied and dropped with the GIL held.
struct State {
  PyObject_HEAD
  hivekit::Hive hive;
  hivekit::Key root;
  std::string path;
  std::atomic<bool> closed{false};
  // Serialises calls on `hive` itself (close() replaces its reference);
  // taken with the GIL released, so it never waits while holding it.
  std::mutex mutex;

  void check_open() const {
    if (closed.load(std::memory_order_relaxed)) throw HiveError{Code::closed, "the hive '" + path + "' was closed"};
  }
};

PyTypeObject* g_state_type = nullptr;

class StateRef {
 public:
  StateRef() = default;
  StateRef(const StateRef& o) : p_(o.p_) { Py_XINCREF(obj()); }
  StateRef(StateRef&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
  StateRef& operator=(StateRef o) noexcept {
    std::swap(p_, o.p_);
    return *this;
  }
  ~StateRef() { Py_XDECREF(obj()); }
  // Takes over a new reference.
  static StateRef adopt(State* p) {
    StateRef r;
    r.p_ = p;
    return r;
  }
  State* operator->() const { return p_; }
  State& operator*() const { return *p_; }

 private:
  PyObject* obj() const { return reinterpret_cast<PyObject*>(p_); }
  State* p_ = nullptr;
};

void state_dealloc(PyObject* self) {
  PyTypeObject* type = Py_TYPE(self);
  reinterpret_cast<State*>(self)->~State();  // an open hive closes here (a writable one flushes)
  type->tp_free(self);
  Py_DECREF(type);
}

PyType_Slot state_slots[] = {
    {Py_tp_dealloc, reinterpret_cast<void*>(&state_dealloc)},
    {0, nullptr},
};
PyType_Spec state_spec = {"hivekit._HiveState", sizeof(State), 0, Py_TPFLAGS_DEFAULT, state_slots};

StateRef make_state(hivekit::Hive hive, std::string path) {
  State* s = PyObject_New(State, g_state_type);
  if (!s) throw py::error_already_set();
  new (&s->hive) hivekit::Hive();
  new (&s->root) hivekit::Key(hive.root());
  new (&s->path) std::string(std::move(path));
  new (&s->closed) std::atomic<bool>(false);
  new (&s->mutex) std::mutex();
  s->hive = std::move(hive);
  return StateRef::adopt(s);
}

struct PyHive {
  StateRef s;
};

// ---------------------------------------------------------------- handle objects

struct PyKey {
  PyObject_HEAD
  hivekit::Key key;
  StateRef s;
};

struct PyValue {
  PyObject_HEAD
  hivekit::Value value;
  StateRef s;
};

// The C++ range is walked as the loop goes: nothing is collected first.
// `it` points into `range`, which never moves (it lives in the object).
template <class Range>
struct IterObject {
  PyObject_HEAD
  Range range;
  typename Range::iterator it;
  StateRef s;
};
using SubkeyIterObject = IterObject<hivekit::Subkeys>;
using ValueIterObject = IterObject<hivekit::Values>;

PyTypeObject* g_key_type = nullptr;
PyTypeObject* g_value_type = nullptr;
PyTypeObject* g_subkey_iter_type = nullptr;
PyTypeObject* g_value_iter_type = nullptr;

template <class T>
void dealloc(PyObject* self) {
  PyTypeObject* type = Py_TYPE(self);
  reinterpret_cast<T*>(self)->~T();
  type->tp_free(self);
  Py_DECREF(type);
}

// New objects; these take the C++ parts (placement into the Python object).
PyObject* new_key(hivekit::Key key, const StateRef& s) {
  PyKey* o = PyObject_New(PyKey, g_key_type);
  if (!o) throw py::error_already_set();
  new (&o->key) hivekit::Key(std::move(key));
  new (&o->s) StateRef(s);
  return reinterpret_cast<PyObject*>(o);
}

PyObject* new_value(hivekit::Value value, const StateRef& s) {
  PyValue* o = PyObject_New(PyValue, g_value_type);
  if (!o) throw py::error_already_set();
  new (&o->value) hivekit::Value(std::move(value));
  new (&o->s) StateRef(s);
  return reinterpret_cast<PyObject*>(o);
}

template <class Range>
PyObject* new_iter(PyTypeObject* type, Range range, const StateRef& s) {
  check(range.status());
  auto* o = PyObject_New(IterObject<Range>, type);
  if (!o) throw py::error_already_set();
  new (&o->range) Range(std::move(range));
  new (&o->it) typename Range::iterator();
  new (&o->s) StateRef(s);
  PyObject* self = reinterpret_cast<PyObject*>(o);
  try {
    o->it = o->range.begin();
  } catch (...) {
    Py_DECREF(self);
    throw;
  }
  return self;
}

PyKey* as_key(PyObject* self) {
  return reinterpret_cast<PyKey*>(self);
}
PyValue* as_value(PyObject* self) {
  return reinterpret_cast<PyValue*>(self);
}

PyObject* type_object(std::uint32_t type) {
  if (g_value_types && type < static_cast<std::uint32_t>(PyTuple_GET_SIZE(g_value_types))) {
    PyObject* member = PyTuple_GET_ITEM(g_value_types, type);
    Py_INCREF(member);
    return member;
  }
  return PyLong_FromUnsignedLong(type);
}

PyObject* bytes_of(const hivekit::Bytes& b) {
  return PyBytes_FromStringAndSize(reinterpret_cast<const char*>(b.data()), static_cast<Py_ssize_t>(b.size()));
}

// Arguments and results of the pybind11 functions attached to the CPython
// types: a Key or Value argument, a new Key or Value result.
struct KeyArg {
  PyKey* o;
};
struct ValueArg {
  PyValue* o;
};
struct NewKey {
  hivekit::Key key;
  StateRef s;
};
struct NewValue {
  hivekit::Value value;
  StateRef s;
};

// A str argument as the library's UTF-8 / WTF-8.
struct Text {
  std::string utf8;
};

// A file path: str, bytes or os.PathLike, in the file system's encoding.
struct FsPath {
  std::string bytes;
};

}  // namespace

namespace pybind11::detail {

template <>
struct type_caster<Text> {
  PYBIND11_TYPE_CASTER(Text, const_name("str"));
  bool load(handle src, bool) {
    if (!src || !PyUnicode_Check(src.ptr())) return false;
    Py_ssize_t n = 0;
    if (const char* p = PyUnicode_AsUTF8AndSize(src.ptr(), &n)) {
      value.utf8.assign(p, static_cast<size_t>(n));
      return true;
    }
    PyErr_Clear();  // a lone surrogate: strict UTF-8 refuses it
    object b = reinterpret_steal<object>(PyUnicode_AsEncodedString(src.ptr(), "utf-8", "surrogatepass"));
    if (!b) {
      PyErr_Clear();
      return false;
    }
    value.utf8.assign(PyBytes_AS_STRING(b.ptr()), static_cast<size_t>(PyBytes_GET_SIZE(b.ptr())));
    return true;
  }
  static handle cast(const Text& t, return_value_policy, handle) { return decode_raw(t.utf8); }
};

template <>
struct type_caster<FsPath> {
  PYBIND11_TYPE_CASTER(FsPath, const_name("str | bytes | os.PathLike[str]"));
  bool load(handle src, bool) {
    PyObject* encoded = nullptr;
    if (!src || !PyUnicode_FSConverter(src.ptr(), &encoded)) {
      PyErr_Clear();
      return false;
    }
    object b = reinterpret_steal<object>(encoded);
    value.bytes.assign(PyBytes_AS_STRING(encoded), static_cast<size_t>(PyBytes_GET_SIZE(encoded)));
    return true;
  }
  static handle cast(const FsPath& p, return_value_policy, handle) {
    return PyUnicode_DecodeFSDefaultAndSize(p.bytes.data(), static_cast<Py_ssize_t>(p.bytes.size()));
  }
};

template <>
struct type_caster<KeyArg> {
  PYBIND11_TYPE_CASTER(KeyArg, const_name("Key"));
  bool load(handle src, bool) {
    if (!src || Py_TYPE(src.ptr()) != g_key_type) return false;
    value.o = as_key(src.ptr());
    return true;
  }
  static handle cast(KeyArg k, return_value_policy, handle) { return handle(reinterpret_cast<PyObject*>(k.o)).inc_ref(); }
};

template <>
struct type_caster<ValueArg> {
  PYBIND11_TYPE_CASTER(ValueArg, const_name("Value"));
  bool load(handle src, bool) {
    if (!src || Py_TYPE(src.ptr()) != g_value_type) return false;
    value.o = as_value(src.ptr());
    return true;
  }
  static handle cast(ValueArg v, return_value_policy, handle) {
    return handle(reinterpret_cast<PyObject*>(v.o)).inc_ref();
  }
};

template <>
struct type_caster<NewKey> {
  PYBIND11_TYPE_CASTER(NewKey, const_name("Key"));
  bool load(handle, bool) { return false; }
  static handle cast(NewKey k, return_value_policy, handle) { return new_key(std::move(k.key), k.s); }
};

template <>
struct type_caster<NewValue> {
  PYBIND11_TYPE_CASTER(NewValue, const_name("Value"));
  bool load(handle, bool) { return false; }
  static handle cast(NewValue v, return_value_policy, handle) { return new_value(std::move(v.value), v.s); }
};

}  // namespace pybind11::detail

namespace {

// ---------------------------------------------------------------- key slots

PyObject* key_name(PyObject* self, void*) {
  return guarded(
      [&]() -> PyObject* {
        PyKey* k = as_key(self);
        k->s->check_open();
        return decode_raw(k->key.name());
      },
      nullptr);
}

PyObject* key_path(const PyKey* k) {
  k->s->check_open();
  return decode_raw(k->key.path());
}

PyObject* key_path_get(PyObject* self, void*) {
  return guarded([&] { return key_path(as_key(self)); }, nullptr);
}

PyObject* key_last_write(PyObject* self, void*) {
  return guarded(
      [&]() -> PyObject* {
        PyKey* k = as_key(self);
        k->s->check_open();
        return PyLong_FromUnsignedLongLong(k->key.last_write());
      },
      nullptr);
}

PyObject* key_offset(PyObject* self, void*) {
  return guarded(
      [&]() -> PyObject* {
        PyKey* k = as_key(self);
        k->s->check_open();
        return PyLong_FromUnsignedLong(k->key.offset());
      },
      nullptr);
}

PyObject* key_subkeys(PyObject* self, PyObject*) {
  return guarded([&] { return new_iter(g_subkey_iter_type, as_key(self)->key.subkeys(), as_key(self)->s); },
                 nullptr);
}

PyObject* key_values(PyObject* self, PyObject*) {
  return guarded([&] { return new_iter(g_value_iter_type, as_key(self)->key.values(), as_key(self)->s); },
                 nullptr);
}

PyObject* key_iter(PyObject* self) {
  return key_subkeys(self, nullptr);
}

Py_ssize_t key_len(PyObject* self) {
  return guarded(
      [&]() -> Py_ssize_t {
        PyKey* k = as_key(self);
        k->s->check_open();
        return k->key.subkey_count();
      },
      -1);
}

int key_bool(PyObject*) {
  return 1;  // a key is true even without subkeys (len() counts those)
}

// The value `name` (a str), as a new Value; value_not_found raises
// ValueNotFound, a KeyError.
PyObject* key_getitem(PyObject* self, PyObject* name) {
  return guarded(
      [&]() -> PyObject* {
        if (!PyUnicode_Check(name)) throw py::type_error("a value name is a str");
        PyKey* k = as_key(self);
        return new_value(take(k->key.value(py::cast<Text>(py::handle(name)).utf8)), k->s);
      },
      nullptr);
}

int key_contains(PyObject* self, PyObject* name) {
  return guarded(
      [&]() -> int {
        if (!PyUnicode_Check(name)) return 0;
        hivekit::Result<hivekit::Value> r = as_key(self)->key.value(py::cast<Text>(py::handle(name)).utf8);
        if (!r && r.status().code() == Code::value_not_found) return 0;
        take(std::move(r));
        return 1;
      },
      -1);
}

Py_hash_t key_hash(PyObject* self) {
  const Py_hash_t h = static_cast<Py_hash_t>(as_key(self)->key.offset());
  return h == -1 ? -2 : h;
}

PyObject* key_richcompare(PyObject* self, PyObject* other, int op) {
  if ((op != Py_EQ && op != Py_NE) || Py_TYPE(other) != g_key_type) Py_RETURN_NOTIMPLEMENTED;
  const bool same = as_key(self)->key == as_key(other)->key;
  return PyBool_FromLong(same == (op == Py_EQ));
}

PyObject* key_repr(PyObject* self) {
  return guarded(
      [&]() -> PyObject* {
        PyKey* k = as_key(self);
        if (k->s->closed.load()) return PyUnicode_FromString("<hivekit.Key of a closed hive>");
        py::object path = py::reinterpret_steal<py::object>(key_path(k));
        if (!path) throw py::error_already_set();
        return PyUnicode_FromFormat("<hivekit.Key %R>", path.ptr());
      },
      nullptr);
}

PyGetSetDef key_getset[] = {
    {"name", key_name, nullptr, "The key's name; \"\" for the root key.", nullptr},
    {"path", key_path_get, nullptr, "From the root: \"\\\\\" for the root, \"\\\\Software\\\\Classes\" below it.",
     nullptr},
    {"last_write_filetime", key_last_write, nullptr, "The last write time as a FILETIME (100 ns units since 1601).",
     nullptr},
    {"offset", key_offset, nullptr, "Where the key's record lies in the hive bins data.", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyMethodDef key_methods[] = {
    {"subkeys", key_subkeys, METH_NOARGS, "The subkeys in the order of the key's subkey list, as it goes."},
    {"values", key_values, METH_NOARGS, "The values in the order of the key's value list, as it goes."},
    {nullptr, nullptr, 0, nullptr},
};

PyType_Slot key_slots[] = {
    {Py_tp_dealloc, reinterpret_cast<void*>(&dealloc<PyKey>)},
    {Py_tp_getset, key_getset},
    {Py_tp_methods, key_methods},
    {Py_tp_iter, reinterpret_cast<void*>(&key_iter)},
    {Py_mp_length, reinterpret_cast<void*>(&key_len)},
    {Py_sq_length, reinterpret_cast<void*>(&key_len)},
    {Py_mp_subscript, reinterpret_cast<void*>(&key_getitem)},
    {Py_sq_contains, reinterpret_cast<void*>(&key_contains)},
    {Py_nb_bool, reinterpret_cast<void*>(&key_bool)},
    {Py_tp_hash, reinterpret_cast<void*>(&key_hash)},
    {Py_tp_richcompare, reinterpret_cast<void*>(&key_richcompare)},
    {Py_tp_repr, reinterpret_cast<void*>(&key_repr)},
    {Py_tp_doc, const_cast<char*>("A key of an open hive (a handle: cheap, made as needed).")},
    {0, nullptr},
};

// ---------------------------------------------------------------- value slots

PyObject* value_name(PyObject* self, void*) {
  return guarded(
      [&]() -> PyObject* {
        PyValue* v = as_value(self);
        v->s->check_open();
        return decode_raw(v->value.name());
      },
      nullptr);
}

PyObject* value_type(PyObject* self, void*) {
  return guarded(
      [&]() -> PyObject* {
        PyValue* v = as_value(self);
        v->s->check_open();
        return type_object(static_cast<std::uint32_t>(v->value.type()));
      },
      nullptr);
}

PyObject* value_size(PyObject* self, void*) {
  return guarded(
      [&]() -> PyObject* {
        PyValue* v = as_value(self);
        v->s->check_open();
        return PyLong_FromUnsignedLong(v->value.size());
      },
      nullptr);
}

PyObject* value_data(PyObject* self, void*) {
  return guarded([&] { return bytes_of(take(as_value(self)->value.data())); }, nullptr);
}

PyObject* value_repr(PyObject* self) {
  return guarded(
      [&]() -> PyObject* {
        PyValue* v = as_value(self);
        if (v->s->closed.load()) return PyUnicode_FromString("<hivekit.Value of a closed hive>");
        py::object name = decode(v->value.name());
        const auto type = v->value.type();
        const std::string_view t = hivekit::type_name(type);
        const std::string shown = t.empty() ? std::to_string(static_cast<std::uint32_t>(type)) : std::string(t);
        return PyUnicode_FromFormat("<hivekit.Value %R %s>", name.ptr(), shown.c_str());
      },
      nullptr);
}

PyGetSetDef value_getset[] = {
    {"name", value_name, nullptr, "The value's name; \"\" for the key's default value.", nullptr},
    {"type", value_type, nullptr, "A ValueType, or an int for a type Windows does not define.", nullptr},
    {"size", value_size, nullptr, "Bytes of data the value holds.", nullptr},
    {"data", value_data, nullptr, "The raw data (bytes), whatever the type.", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyType_Slot value_slots[] = {
    {Py_tp_dealloc, reinterpret_cast<void*>(&dealloc<PyValue>)},
    {Py_tp_getset, value_getset},
    {Py_tp_repr, reinterpret_cast<void*>(&value_repr)},
    {Py_tp_doc, const_cast<char*>("A value of a key (a handle: cheap, made as needed).")},
    {0, nullptr},
};

// ---------------------------------------------------------------- iterators

PyObject* iter_self(PyObject* self) {
  Py_INCREF(self);
  return self;
}

// The end of a loop is a NULL without an exception set.
PyObject* subkey_next(PyObject* self) {
  return guarded(
      [&]() -> PyObject* {
        auto* i = reinterpret_cast<SubkeyIterObject*>(self);
        if (i->it == i->range.end()) return nullptr;
        i->s->check_open();  // else a closed hive would end the loop early, silently
        hivekit::Key key = *i->it;
        ++i->it;
        return new_key(std::move(key), i->s);
      },
      nullptr);
}

PyObject* value_next(PyObject* self) {
  return guarded(
      [&]() -> PyObject* {
        auto* i = reinterpret_cast<ValueIterObject*>(self);
        if (i->it == i->range.end()) return nullptr;
        i->s->check_open();  // else a closed hive would end the loop early, silently
        hivekit::Value value = *i->it;
        ++i->it;
        return new_value(std::move(value), i->s);
      },
      nullptr);
}

template <class T>
PyObject* iter_skipped(PyObject* self, void*) {
  return PyLong_FromUnsignedLong(reinterpret_cast<T*>(self)->range.skipped());
}

PyGetSetDef subkey_iter_getset[] = {
    {"skipped", iter_skipped<SubkeyIterObject>, nullptr, "Entries of the list passed over as unreadable so far.",
     nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};
PyGetSetDef value_iter_getset[] = {
    {"skipped", iter_skipped<ValueIterObject>, nullptr, "Entries of the list passed over as unreadable so far.",
     nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyType_Slot subkey_iter_slots[] = {
    {Py_tp_dealloc, reinterpret_cast<void*>(&dealloc<SubkeyIterObject>)},
    {Py_tp_iter, reinterpret_cast<void*>(&iter_self)},
    {Py_tp_iternext, reinterpret_cast<void*>(&subkey_next)},
    {Py_tp_getset, subkey_iter_getset},
    {0, nullptr},
};

PyType_Slot value_iter_slots[] = {
    {Py_tp_dealloc, reinterpret_cast<void*>(&dealloc<ValueIterObject>)},
    {Py_tp_iter, reinterpret_cast<void*>(&iter_self)},
    {Py_tp_iternext, reinterpret_cast<void*>(&value_next)},
    {Py_tp_getset, value_iter_getset},
    {0, nullptr},
};

PyType_Spec key_spec = {"hivekit.Key", sizeof(PyKey), 0, Py_TPFLAGS_DEFAULT, key_slots};
PyType_Spec value_spec = {"hivekit.Value", sizeof(PyValue), 0, Py_TPFLAGS_DEFAULT, value_slots};
PyType_Spec subkey_iter_spec = {"hivekit.SubkeyIterator", sizeof(SubkeyIterObject), 0, Py_TPFLAGS_DEFAULT,
                                subkey_iter_slots};
PyType_Spec value_iter_spec = {"hivekit.ValueIterator", sizeof(ValueIterObject), 0, Py_TPFLAGS_DEFAULT,
                               value_iter_slots};

// ---------------------------------------------------------------- value data

// The data for set_value / Value.set from a Python object and an optional
// type, applied through `target` (a key and a name, or a value).
template <class Target>
void apply_data(Target& target, py::handle data, py::handle type_arg) {
  using hivekit::ValueType;
  const bool typed = !type_arg.is_none();
  std::uint32_t type = 0;
  if (typed) {
    if (!PyLong_Check(type_arg.ptr())) throw py::type_error("a value type is a ValueType or an int");
    const unsigned long long t = PyLong_AsUnsignedLongLong(type_arg.ptr());
    if (PyErr_Occurred() || t > 0xFFFFFFFFull) {
      PyErr_Clear();
      throw py::value_error("a value type is a number from 0 to 2**32 - 1");
    }
    type = static_cast<std::uint32_t>(t);
  }
  const auto vt = static_cast<ValueType>(type);
  if (PyUnicode_Check(data.ptr())) {
    if (typed && vt != ValueType::sz && vt != ValueType::expand_sz && vt != ValueType::link)
      throw py::type_error("a str is data for REG_SZ, REG_EXPAND_SZ or REG_LINK");
    target.string(data.cast<Text>().utf8, typed ? vt : ValueType::sz);
  } else if (PyLong_Check(data.ptr())) {
    int overflow = 0;
    const long long as_signed = PyLong_AsLongLongAndOverflow(data.ptr(), &overflow);
    if (overflow < 0 || (overflow == 0 && as_signed < 0)) throw py::value_error("a number to store may not be negative");
    const unsigned long long n = PyLong_AsUnsignedLongLong(data.ptr());
    if (PyErr_Occurred()) {
      PyErr_Clear();
      throw py::value_error("a number to store is below 2**64");
    }
    const ValueType t = typed ? vt : n <= 0xFFFFFFFFull ? ValueType::dword : ValueType::qword;
    if (t == ValueType::dword || t == ValueType::dword_big_endian) {
      if (n > 0xFFFFFFFFull) throw py::value_error("a DWORD holds numbers below 2**32");
      target.dword(static_cast<std::uint32_t>(n), t);
    } else if (t == ValueType::qword) {
      target.qword(n);
    } else {
      throw py::type_error("an int is data for REG_DWORD, REG_DWORD_BIG_ENDIAN or REG_QWORD");
    }
  } else if (PyList_Check(data.ptr()) || PyTuple_Check(data.ptr())) {
    if (typed && vt != ValueType::multi_sz) throw py::type_error("a list of str is data for REG_MULTI_SZ");
    std::vector<std::string> strings;
    for (py::handle item : data) {
      if (!PyUnicode_Check(item.ptr())) throw py::type_error("REG_MULTI_SZ data is a list of str");
      strings.push_back(item.cast<Text>().utf8);
    }
    target.multi(strings);
  } else if (PyObject_CheckBuffer(data.ptr())) {
    Py_buffer view;
    if (PyObject_GetBuffer(data.ptr(), &view, PyBUF_SIMPLE) != 0) throw py::error_already_set();
    std::unique_ptr<Py_buffer, void (*)(Py_buffer*)> release(&view, PyBuffer_Release);
    target.raw(typed ? vt : ValueType::binary,
               std::span<const std::byte>(static_cast<const std::byte*>(view.buf), static_cast<size_t>(view.len)));
  } else {
    throw py::type_error("value data is str, int, a list of str or bytes, not " +
                         std::string(Py_TYPE(data.ptr())->tp_name));
  }
}

// The target of set_value: a key and a value name; keeps the Value made.
struct KeyTarget {
  hivekit::Key& key;
  const std::string& name;
  hivekit::Value made;
  void string(const std::string& text, hivekit::ValueType t) { made = take(key.set_string(name, text, t)); }
  void dword(std::uint32_t n, hivekit::ValueType t) { made = take(key.set_dword(name, n, t)); }
  void qword(std::uint64_t n) { made = take(key.set_qword(name, n)); }
  void multi(const std::vector<std::string>& s) { made = take(key.set_multi_string(name, s)); }
  void raw(hivekit::ValueType t, std::span<const std::byte> d) { made = take(key.set_value(name, t, d)); }
};

struct ValueTarget {
  hivekit::Value& value;
  void string(const std::string& text, hivekit::ValueType t) { check(value.set_string(text, t)); }
  void dword(std::uint32_t n, hivekit::ValueType t) { check(value.set_dword(n, t)); }
  void qword(std::uint64_t n) { check(value.set_qword(n)); }
  void multi(const std::vector<std::string>& s) { check(value.set_multi_string(s)); }
  void raw(hivekit::ValueType t, std::span<const std::byte> d) { check(value.set(t, d)); }
};

py::object raw_data(const hivekit::Value& v) {
  return py::reinterpret_steal<py::object>(bytes_of(take(v.data())));
}

// The value's data decoded by its type; the raw bytes when they do not fit
// the type (a DWORD of 3 bytes, a type Windows does not define).
py::object decoded(ValueArg self) {
  using hivekit::ValueType;
  self.o->s->check_open();
  const hivekit::Value& v = self.o->value;
  auto fallback = [&](const hivekit::Status& s) -> py::object {
    if (s.code() != Code::wrong_type) raise(s);
    return raw_data(v);
  };
  switch (v.type()) {
    case ValueType::sz:
    case ValueType::expand_sz: {
      auto r = v.string();
      return r ? py::object(decode(*r)) : fallback(r.status());
    }
    case ValueType::link: {
      auto r = v.link();
      return r ? py::object(decode(*r)) : fallback(r.status());
    }
    case ValueType::multi_sz: {
      auto r = v.multi_string();
      if (!r) return fallback(r.status());
      py::list out(r->size());
      for (size_t i = 0; i < r->size(); ++i) out[i] = decode((*r)[i]);
      return out;
    }
    case ValueType::dword:
    case ValueType::dword_big_endian: {
      auto r = v.dword();
      return r ? py::object(py::int_(*r)) : fallback(r.status());
    }
    case ValueType::qword: {
      auto r = v.qword();
      return r ? py::object(py::int_(*r)) : fallback(r.status());
    }
    default:
      return raw_data(v);
  }
}

// ---------------------------------------------------------------- hive

hivekit::Codepage codepage_of(const std::string& name) {
  if (name == "latin1") return hivekit::Codepage::latin1;
  if (name == "ascii") return hivekit::Codepage::ascii;
  if (name == "windows1250") return hivekit::Codepage::windows1250;
  if (name == "windows1252") return hivekit::Codepage::windows1252;
  throw py::value_error("codepage is 'latin1', 'ascii', 'windows1250' or 'windows1252', not '" + name + "'");
}

PyHive open_hive(const FsPath& path, bool write, bool dirty, bool logs, py::object log_files,
                 const std::string& codepage, bool in_memory, bool wait) {
  hivekit::OpenOptions o;
  o.writable = write;
  o.wait = wait;
  o.accept_dirty = dirty;
  o.in_memory = in_memory;
  o.codepage = codepage_of(codepage);
  o.logs = logs ? hivekit::Logs::beside : hivekit::Logs::none;
  if (!log_files.is_none()) {
    if (!logs) throw py::value_error("log_files names the logs to use; it cannot go with logs=False");
    o.logs = hivekit::Logs::named;
    for (py::handle f : log_files) o.log_files.push_back(f.cast<FsPath>().bytes);
  }
  hivekit::Result<hivekit::Hive> r = [&] {
    py::gil_scoped_release unlocked;
    return hivekit::Hive::open(path.bytes, o);
  }();
  return PyHive{make_state(take(std::move(r)), path.bytes)};
}

PyHive create_hive(const FsPath& path, std::uint32_t minor_version, const std::string& codepage, bool overwrite) {
  hivekit::CreateOptions o;
  o.minor_version = minor_version;
  o.codepage = codepage_of(codepage);
  o.overwrite = overwrite;
  hivekit::Result<hivekit::Hive> r = [&] {
    py::gil_scoped_release unlocked;
    return hivekit::Hive::create(path.bytes, o);
  }();
  return PyHive{make_state(take(std::move(r)), path.bytes)};
}

// Runs `f` on the hive with the GIL released and the state's lock held.
template <class F>
auto with_hive(State& s, F&& f) {
  s.check_open();
  py::gil_scoped_release unlocked;
  std::lock_guard<std::mutex> lock(s.mutex);
  return f(s.hive);
}

void close_hive(PyHive& self) {
  State& s = *self.s;
  if (s.closed.load()) return;
  hivekit::Status status;
  {
    py::gil_scoped_release unlocked;
    std::lock_guard<std::mutex> lock(s.mutex);
    if (!s.closed.exchange(true)) status = s.hive.close();
  }
  check(status);
}

py::dict log_info(const hivekit::LogInfo& l) {
  py::dict d;
  d["path"] = py::cast(FsPath{l.path});
  d["usable"] = l.usable;
  d["new_format"] = l.new_format;
  d["primary_sequence"] = l.primary_sequence;
  d["secondary_sequence"] = l.secondary_sequence;
  d["entries"] = l.entries;
  d["first_sequence"] = l.first_sequence;
  d["last_sequence"] = l.last_sequence;
  d["applied"] = l.applied;
  d["state"] = decode(l.state);
  return d;
}

py::dict hive_info(PyHive& self) {
  const hivekit::HiveInfo i = with_hive(*self.s, [](hivekit::Hive& h) { return h.info(); });
  static const char* const LOG_MODES[] = {"none", "single", "dual"};
  py::dict d;
  d["path"] = py::cast(FsPath{i.path});
  d["major_version"] = i.major_version;
  d["minor_version"] = i.minor_version;
  d["primary_sequence"] = i.primary_sequence;
  d["secondary_sequence"] = i.secondary_sequence;
  d["dirty"] = i.dirty;
  d["timestamp"] = i.timestamp;
  d["file_type"] = i.file_type;
  d["file_format"] = i.file_format;
  d["root_offset"] = i.root_offset;
  d["hive_bins_size"] = i.hive_bins_size;
  d["hbin_count"] = i.hbin_count;
  d["clustering_factor"] = i.clustering_factor;
  d["stored_checksum"] = i.stored_checksum;
  d["computed_checksum"] = i.computed_checksum;
  d["file_name"] = decode(i.file_name);
  d["writable"] = i.writable;
  d["log_mode"] = LOG_MODES[static_cast<int>(i.log_mode)];
  d["applied_log"] = i.applied_log;
  d["applied_sequence"] = i.applied_sequence;
  py::list logs;
  for (const hivekit::LogInfo& l : i.logs) logs.append(log_info(l));
  d["logs"] = logs;
  return d;
}

// The security descriptors as (offset, reference count, bytes) tuples, and
// (code, message) of the failure that ended the walk early, or None.
py::tuple security_descriptors(PyHive& self) {
  struct Item {
    std::uint32_t offset, refs;
    hivekit::Bytes bytes;
  };
  std::vector<Item> items;
  hivekit::Status why = with_hive(*self.s, [&](hivekit::Hive& h) {
    hivekit::SecurityDescriptors all = h.security_descriptors();
    for (const hivekit::SecurityDescriptor& sd : all) {
      hivekit::Result<hivekit::Bytes> b = sd.bytes();
      if (!b) return b.status();
      items.push_back({sd.offset(), sd.reference_count(), std::move(*b)});
    }
    return all.status();
  });
  py::list out;
  for (const Item& i : items)
    out.append(py::make_tuple(i.offset, i.refs, py::reinterpret_steal<py::object>(bytes_of(i.bytes))));
  py::object error = py::none();
  if (!why.ok()) error = py::make_tuple(hivekit::code_name(why.code()), decode(why.message()));
  return py::make_tuple(out, error);
}

py::list lines(const std::vector<std::string>& v) {
  py::list out;
  for (const std::string& s : v) out.append(decode(s));
  return out;
}

py::list export_hive(PyHive& self, const FsPath& path, py::object key, const Text& root_path, bool append,
                     bool binary_only) {
  State& s = *self.s;
  s.check_open();
  hivekit::Key from = s.root;
  if (!key.is_none()) from = Py_TYPE(key.ptr()) == g_key_type ? as_key(key.ptr())->key : take(s.root.key(key.cast<Text>().utf8));
  std::vector<std::string> diagnostics;
  hivekit::ExportOptions o;
  o.root_path = root_path.utf8;
  o.append = append;
  o.binary_only = binary_only;
  o.diagnostics = [&](std::string_view line) { diagnostics.emplace_back(line); };
  hivekit::Status st;
  {
    py::gil_scoped_release unlocked;
    st = hivekit::export_reg(from, path.bytes, o);
  }
  check(st);
  return lines(diagnostics);
}

template <class F>
py::list import_into(PyHive& self, const Text& prefix, F&& run) {
  std::vector<std::string> diagnostics;
  hivekit::ImportOptions o;
  o.prefix = prefix.utf8;
  o.diagnostics = [&](std::string_view line) { diagnostics.emplace_back(line); };
  check(with_hive(*self.s, [&](hivekit::Hive& h) { return run(h, o); }));
  return lines(diagnostics);
}

// ---------------------------------------------------------------- attaching

// Adds `f` to a CPython type as a method, or as a property (with a setter
// when one is given).
template <class F, class... Extra>
void method(py::handle type, const char* name, F&& f, const Extra&... extra) {
  py::cpp_function cf(std::forward<F>(f), py::name(name), py::is_method(type), extra...);
  py::setattr(type, name, cf);
}

template <class G>
void property(py::handle type, const char* name, const char* doc, G&& get) {
  py::object builtin = py::module_::import("builtins").attr("property");
  py::setattr(type, name, builtin(py::cpp_function(std::forward<G>(get)), py::none(), py::none(), doc));
}

template <class G, class S>
void property(py::handle type, const char* name, const char* doc, G&& get, S&& set) {
  py::object builtin = py::module_::import("builtins").attr("property");
  py::setattr(type, name,
              builtin(py::cpp_function(std::forward<G>(get)), py::cpp_function(std::forward<S>(set)), py::none(), doc));
}

PyTypeObject* make_type(py::module_& m, PyType_Spec& shape, const char* name) {
  PyObject* t = PyType_FromSpec(&shape);
  if (!t) throw py::error_already_set();
  py::setattr(t, "__module__", py::str("hivekit"));
  m.add_object(name, py::handle(t));  // the module keeps a reference; `t` keeps ours for good
  return reinterpret_cast<PyTypeObject*>(t);
}

}  // namespace

PYBIND11_MODULE(_hivekit, m) {
  m.doc() = "The C++ core of the hivekit package; use the package (import hivekit).";
  py::register_exception_translator(translate);

  g_state_type = make_type(m, state_spec, "_HiveState");
  g_key_type = make_type(m, key_spec, "Key");
  g_value_type = make_type(m, value_spec, "Value");
  g_subkey_iter_type = make_type(m, subkey_iter_spec, "SubkeyIterator");
  g_value_iter_type = make_type(m, value_iter_spec, "ValueIterator");

  m.def(
      "_setup",
      [](py::function make_error, py::tuple value_types) {
        Py_XDECREF(g_make_error);
        Py_XDECREF(g_value_types);
        g_make_error = make_error.release().ptr();
        g_value_types = value_types.release().ptr();
      },
      "Registers the exception factory and the ValueType members.");
  m.def("version", [] { return std::string(hivekit::version()); });

  m.def("open", &open_hive, py::arg("path"), py::kw_only(), py::arg("write") = false, py::arg("dirty") = false,
        py::arg("logs") = true, py::arg("log_files") = py::none(), py::arg("codepage") = "latin1",
        py::arg("in_memory") = false, py::arg("wait") = false);
  m.def("create", &create_hive, py::arg("path"), py::kw_only(), py::arg("minor_version") = 5,
        py::arg("codepage") = "latin1", py::arg("overwrite") = false);

  py::class_<PyHive>(m, "Hive")
      .def_property_readonly("root",
                             [](PyHive& self) {
                               self.s->check_open();
                               return NewKey{self.s->root, self.s};
                             })
      .def("key",
           [](PyHive& self, const Text& path) {
             self.s->check_open();
             return NewKey{take(self.s->root.key(path.utf8)), self.s};
           })
      .def("create_key",
           [](PyHive& self, const Text& path) {
             self.s->check_open();
             return NewKey{take(self.s->root.create_key(path.utf8)), self.s};
           })
      .def("_info", &hive_info)
      .def("_security_descriptors", &security_descriptors)
      .def("export", &export_hive, py::arg("path"), py::arg("key") = py::none(), py::kw_only(),
           py::arg("root_path") = Text{}, py::arg("append") = false, py::arg("binary_only") = false)
      .def(
          "import_reg",
          [](PyHive& self, const FsPath& path, const Text& prefix) {
            return import_into(self, prefix, [&](hivekit::Hive& h, const hivekit::ImportOptions& o) {
              return hivekit::import_reg(h, path.bytes, o);
            });
          },
          py::arg("path"), py::kw_only(), py::arg("prefix") = Text{"ROOT"})
      .def(
          "import_reg_text",
          [](PyHive& self, py::object text, const Text& prefix) {
            std::string bytes;
            if (PyUnicode_Check(text.ptr())) {
              bytes = text.cast<Text>().utf8;
            } else if (PyObject_CheckBuffer(text.ptr())) {
              py::buffer_info b = py::reinterpret_borrow<py::buffer>(text).request();
              bytes.assign(static_cast<const char*>(b.ptr), static_cast<size_t>(b.size * b.itemsize));
            } else {
              throw py::type_error("registry text is str or bytes");
            }
            return import_into(self, prefix, [&](hivekit::Hive& h, const hivekit::ImportOptions& o) {
              return hivekit::import_reg_text(h, bytes, o);
            });
          },
          py::arg("text"), py::kw_only(), py::arg("prefix") = Text{"ROOT"})
      .def("recover",
           [](PyHive& self, const FsPath& path) {
             check(with_hive(*self.s, [&](hivekit::Hive& h) { return h.recover(path.bytes); }));
           })
      .def("flush", [](PyHive& self) { check(with_hive(*self.s, [](hivekit::Hive& h) { return h.flush(); })); })
      .def("close", &close_hive)
      .def_property_readonly("closed", [](const PyHive& self) { return self.s->closed.load(); })
      .def_property_readonly("writable",
                             [](PyHive& self) {
                               if (self.s->closed.load()) return false;
                               py::gil_scoped_release unlocked;
                               std::lock_guard<std::mutex> lock(self.s->mutex);
                               return self.s->hive.writable();
                             })
      .def_property_readonly("path", [](const PyHive& self) { return FsPath{self.s->path}; })
      .def("__enter__", [](py::object self) { return self; })
      .def("__exit__", [](PyHive& self, py::args) { close_hive(self); })
      .def("__repr__", [](const PyHive& self) {
        return "<hivekit.Hive " + py::repr(py::cast(FsPath{self.s->path})).cast<std::string>() +
               (self.s->closed.load() ? " closed>" : ">");
      });

  // The rest of Key: less frequent calls, through pybind11.
  py::handle key(reinterpret_cast<PyObject*>(g_key_type));
  auto open_key = [](KeyArg self) -> hivekit::Key& {
    self.o->s->check_open();
    return self.o->key;
  };
  property(key, "class_name", "The class name stored with the key (\"\" when it has none).",
           [open_key](KeyArg self) { return decode(open_key(self).class_name()); });
  property(key, "subkey_count", "The number of subkeys the key's record holds.",
           [open_key](KeyArg self) { return open_key(self).subkey_count(); });
  property(key, "value_count", "The number of values the key's record holds.",
           [open_key](KeyArg self) { return open_key(self).value_count(); });
  property(key, "parent", "The key above this one; None for the root key.", [](KeyArg self) -> py::object {
    hivekit::Result<hivekit::Key> r = self.o->key.parent();
    if (!r && r.status().code() == Code::key_not_found && self.o->key == self.o->s->root) return py::none();
    return py::cast(NewKey{take(std::move(r)), self.o->s});
  });
  property(
      key, "security_descriptor", "The self-relative security descriptor of the key's security record (bytes).",
      [](KeyArg self) { return py::reinterpret_steal<py::object>(bytes_of(take(take(self.o->key.security_descriptor()).bytes()))); },
      [](KeyArg self, py::bytes data) {
        const std::string_view d = data;
        check(self.o->key.set_security_descriptor(hivekit::as_bytes(d)));
      });
  method(key, "subkey", [](KeyArg self, const Text& name) { return NewKey{take(self.o->key.subkey(name.utf8)), self.o->s}; },
         py::arg("name"));
  method(key, "key", [](KeyArg self, const Text& path) { return NewKey{take(self.o->key.key(path.utf8)), self.o->s}; },
         py::arg("path"));
  method(key, "value",
         [](KeyArg self, const Text& name) { return NewValue{take(self.o->key.value(name.utf8)), self.o->s}; },
         py::arg("name"));
  method(key, "create_key",
         [](KeyArg self, const Text& path) { return NewKey{take(self.o->key.create_key(path.utf8)), self.o->s}; },
         py::arg("path"));
  method(
      key, "delete_key",
      [](KeyArg self, const Text& path, bool recursive) {
        hivekit::Status st;
        {
          py::gil_scoped_release unlocked;  // a recursive delete may take long
          st = self.o->key.delete_key(path.utf8, recursive);
        }
        check(st);
      },
      py::arg("path"), py::arg("recursive") = false);
  method(key, "rename", [](KeyArg self, const Text& name) { check(self.o->key.rename(name.utf8)); }, py::arg("name"));
  method(
      key, "move_to",
      [](KeyArg self, KeyArg parent, py::object name) {
        if (name.is_none())
          check(self.o->key.move_to(parent.o->key));
        else
          check(self.o->key.move_to(parent.o->key, name.cast<Text>().utf8));
      },
      py::arg("parent"), py::arg("name") = py::none());
  method(
      key, "set_value",
      [](KeyArg self, const Text& name, py::handle data, py::handle type) {
        KeyTarget target{self.o->key, name.utf8, {}};
        apply_data(target, data, type);
        return NewValue{std::move(target.made), self.o->s};
      },
      py::arg("name"), py::arg("data"), py::arg("type") = py::none());
  method(key, "delete_value", [](KeyArg self, const Text& name) { check(self.o->key.delete_value(name.utf8)); },
         py::arg("name"));

  py::handle value(reinterpret_cast<PyObject*>(g_value_type));
  property(value, "value", "The data decoded by the type: str, int, list of str, or bytes when it does not fit.",
           &decoded);
  property(value, "key", "The key holding the value.",
           [](ValueArg self) { return NewKey{self.o->value.key(), self.o->s}; });
  method(
      value, "set",
      [](ValueArg self, py::handle data, py::handle type) {
        ValueTarget target{self.o->value};
        apply_data(target, data, type);
      },
      py::arg("data"), py::arg("type") = py::none());
  method(value, "rename", [](ValueArg self, const Text& name) { check(self.o->value.rename(name.utf8)); },
         py::arg("name"));
  method(
      value, "move_to",
      [](ValueArg self, KeyArg key, py::object name) {
        if (name.is_none())
          check(self.o->value.move_to(key.o->key));
        else
          check(self.o->value.move_to(key.o->key, name.cast<Text>().utf8));
      },
      py::arg("key"), py::arg("name") = py::none());
  method(value, "remove", [](ValueArg self) { check(self.o->value.remove()); });
}
