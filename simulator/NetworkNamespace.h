#ifndef VELMORA_SIMULATOR_NETWORKNAMESPACE_H
#define VELMORA_SIMULATOR_NETWORKNAMESPACE_H

namespace Velmora {
namespace Simulator {

/// The network namespace that the calling thread is in when it creates the object.
class NetworkNamespace
{
public:
    NetworkNamespace();
    ~NetworkNamespace();
    NetworkNamespace(const NetworkNamespace&) = delete;
    NetworkNamespace& operator=(const NetworkNamespace&) = delete;

    /// Takes the calling thread to the namespace, and back when it is destroyed. If the thread is already in this
    /// namespace, nothing is done and no privilege is needed.
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
