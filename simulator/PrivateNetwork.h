#ifndef VELMORA_SIMULATOR_PRIVATENETWORK_H
#define VELMORA_SIMULATOR_PRIVATENETWORK_H

#include <string>
#include <vector>

namespace Velmora {
namespace Simulator {

/**
 * A private network of this process. It has a host side and a device side. Each side is a network namespace, and
 * veth pairs connect them. The private network is not connected to the machine's own interfaces. It is removed
 * when the process and its children end, even if they are killed.
 *
 * With the capabilities CAP_SYS_ADMIN and CAP_NET_ADMIN, which root has, no user namespace is needed. Without
 * them, the process creates a user namespace, in which it is root.
 *
 * @code
 * PrivateNetwork network;                                  // before the first thread is started
 * network.addLink("10.77.0.1/16", "10.77.1.1/16", 3);      // devices 10.77.1.1 to 10.77.1.3
 * {
 *     PrivateNetwork::Scope scope(network, PrivateNetwork::DeviceSide);
 *     server.listen(QHostAddress("10.77.1.1"), 80);
 * }
 * @endcode
 *
 * A socket belongs to the side on which it was opened. A thread or a child process belongs to the side on which it
 * was started. Failures throw std::runtime_error with a message for the user.
 */
class PrivateNetwork
{
public:
    enum Side { HostSide, DeviceSide };

    /// Creates both sides, each with only a loopback interface, and takes the calling thread to the host side.
    /// @warning The process must have no other thread.
    PrivateNetwork();
    ~PrivateNetwork();
    PrivateNetwork(const PrivateNetwork&) = delete;
    PrivateNetwork& operator=(const PrivateNetwork&) = delete;

    /**
     * Connects the sides with a veth pair: the first call creates host0 and device0, the second host1 and device1.
     * @param hostAddress the address of the host side, with its prefix length; empty for none
     * @param firstDeviceAddress the first address of the device side, with its prefix length
     * @param deviceAddresses the number of consecutive addresses of the device side
     * @param rate how fast the device side may send, in the format of tc(8), such as "1mbit"; empty for no limit
     */
    void addLink(const std::string& hostAddress, const std::string& firstDeviceAddress, int deviceAddresses = 1,
                 const std::string& rate = std::string());

    /// Takes the calling thread to @p side.
    void enter(Side side);

    /// Runs a command on @p side and waits until it ends. Throws if it fails. The calling thread stays on its
    /// side.
    void run(Side side, const std::vector<std::string>& command, const std::string& input = std::string());

    /// Writes a kernel setting of one side, such as "net/ipv4/igmp_max_memberships".
    void setSetting(Side side, const std::string& name, const std::string& value);

    /// Returns @p first plus @p index. Both addresses have no prefix length.
    static std::string addressAfter(const std::string& first, int index);

    /// Takes the calling thread to one side, and to the host side when it is destroyed.
    class Scope
    {
    public:
        Scope(PrivateNetwork& network, Side side)
            : network(network)
        {
            network.enter(side);
        }
        // NOLINTNEXTLINE(bugprone-exception-escape): a thread on the wrong side must not continue.
        ~Scope() { network.enter(HostSide); }
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

    private:
        PrivateNetwork& network;
    };

private:
    int sides[2];
    int links;
};

} // namespace Simulator
} // namespace Velmora

#endif
