#ifndef VELMORA_SIMULATOR_NETWORKNAMESPACE_H
#define VELMORA_SIMULATOR_NETWORKNAMESPACE_H

namespace Velmora {
namespace Simulator {

/// The network namespace in which the calling thread is when the object is made.
class NetworkNamespace
{
public:
    NetworkNamespace();
    ~NetworkNamespace();
    NetworkNamespace(const NetworkNamespace&) = delete;
    NetworkNamespace& operator=(const NetworkNamespace&) = delete;

    /// In this namespace for as long as it lives, then back where the thread was. Costs nothing and
    /// needs no privilege for a thread that is there already.
    class Scope
    {
    public:
        explicit Scope(const NetworkNamespace& there);
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

    private:
        int back;
    };

private:
    int descriptor;
};

} // namespace Simulator
} // namespace Velmora

#endif
