#pragma once

#include <mutex>
#include <string>

namespace SDK {

// A system library opened by its soname when a feature first needs it, not at
// start-up: an agent configured without that feature never maps it. Opened
// once and never closed (its functions stay in use until exit).
class LazyLibrary {
public:
    explicit LazyLibrary(const char* soname) : soname_(soname) {}

    // False with the reason in `error` when the library cannot be loaded.
    bool Open(std::string& error);

    // Sets `function` to the named symbol; false with the reason in `error`.
    template <class Function>
    bool Resolve(const char* name, Function& function, std::string& error) const {
        function = reinterpret_cast<Function>(Symbol(name, error));
        return function != nullptr;
    }

private:
    void* Symbol(const char* name, std::string& error) const;

    const char* soname_;
    void* handle_ = nullptr;
};

// A table of a lazy library's functions, filled once per process by `load`
// (a callable taking the table and an error text, true when every function
// resolved); later calls return the same table or the same error.
template <class Table>
class LoadedTable {
public:
    template <class Load>
    const Table* Get(std::string& error, Load load) {
        std::call_once(once_, [&] {
            if (load(table_, error_)) {
                loaded_ = &table_;
            }
        });
        if (loaded_ == nullptr) {
            error = error_;
        }
        return loaded_;
    }

private:
    std::once_flag once_;
    Table table_{};
    const Table* loaded_ = nullptr;
    std::string error_;
};

}  // namespace SDK
