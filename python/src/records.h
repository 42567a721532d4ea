// Parameter and result records as small Python classes: keyword construction
// (required fields must be named, unknown ones are refused), attribute access
// and a repr that lists every field.
#ifndef PA_PYTHON_RECORDS_H
#define PA_PYTHON_RECORDS_H

#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "convert.h"

namespace pa_py {

template <class T>
class RecordClass {
public:
    RecordClass(py::module_& m, const char* name, const char* doc)
        : cls_(m, name, doc), name_(name), fields_(std::make_shared<std::vector<Field>>()) {}

    /// A plain field; required fields have no default in Python.
    template <class F>
    RecordClass& field(const char* name, F T::*member, bool required = true) {
        cls_.def_readwrite(name, member);
        fields_->push_back({name, required, [member](const T& t) { return py::cast(t.*member); },
                            [member, name, this_name = name_](T& t, py::handle v) {
                                try {
                                    t.*member = py::cast<F>(v);
                                } catch (py::cast_error&) {
                                    raise_type(this_name + "." + name + (std::is_integral<F>::value ? ": expected an integer, got " :
                                                                                      ": expected a number, got ") +
                                               std::string(py::str(v.get_type())));
                                }
                            }});
        return *this;
    }

    /// A field converted by hand (matrices, ranges, node arrays); optional.
    RecordClass& property(const char* name, std::function<py::object(const T&)> get,
                          std::function<void(T&, py::handle)> set, const char* doc = "") {
        cls_.def_property(
            name, [get](const T& t) { return get(t); }, [set](T& t, py::handle v) { set(t, v); }, doc);
        fields_->push_back({name, false, get, set});
        return *this;
    }

    py::class_<T>& done() {
        auto fields = fields_;
        const std::string cname = name_;
        cls_.def(py::init([fields, cname](py::args args, py::kwargs kw) {
            if (args.size() != 0) raise_type(cname + " takes keyword arguments only");
            T t{};
            std::string missing;
            for (const auto& f : *fields) {
                if (kw.contains(f.name))
                    f.set(t, kw[py::str(f.name)]);
                else if (f.required)
                    missing += (missing.empty() ? "" : ", ") + f.name;
            }
            if (!missing.empty()) raise_type(cname + ": missing keyword arguments " + missing);
            for (auto item : kw) {
                const std::string key = py::str(item.first);
                bool known = false;
                for (const auto& f : *fields) known = known || f.name == key;
                if (!known) raise_type(cname + ": unexpected keyword argument '" + key + "'");
            }
            return t;
        }));
        cls_.def("__repr__", [fields, cname](const T& t) {
            std::string s = cname + "(";
            for (size_t i = 0; i < fields->size(); ++i)
                s += (i ? ", " : "") + (*fields)[i].name + "=" + std::string(py::repr((*fields)[i].get(t)));
            return s + ")";
        });
        cls_.def("__copy__", [](const T& t) { return T(t); });
        return cls_;
    }

private:
    struct Field {
        std::string name;
        bool required;
        std::function<py::object(const T&)> get;
        std::function<void(T&, py::handle)> set;
    };
    py::class_<T> cls_;
    std::string name_;
    std::shared_ptr<std::vector<Field>> fields_;
};

void bind_records(py::module_& m);

/// Range as a (min, max) tuple and back.
py::tuple range_tuple(const SKespRangeD& r);
SKespRangeD to_range(py::handle v, const char* name);

}  // namespace pa_py

#endif
