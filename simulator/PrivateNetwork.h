#ifndef VELMORA_SIMULATOR_PRIVATENETWORK_H
#define VELMORA_SIMULATOR_PRIVATENETWORK_H

#include <string>
#include <vector>

namespace Velmora {
namespace Simulator {

/**
 * A network of this process alone: a host side and a device side, two network namespaces joined by
 * veth pairs. Nothing in it can reach the machine's own interfaces, and all of it goes when the
 * process and its children end, however they end.
 *
 * Works with the capabilities CAP_SYS_ADMIN and CAP_NET_ADMIN, as root has them; without them in a user
 * namespace of its own, where the process is root of nothing but this network.
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
 * A socket belongs to the side on which it was opened, a thread or a child process to the side on
 * which it was started. Failures throw std::runtime_error with a message for the user.
 */
class PrivateNetwork
{
public:
    enum Side { HostSide, DeviceSide };

    /// Makes both sides, each with nothing but a loopback, and takes the calling thread, which must
    /// be the only one, to the host side.
    PrivateNetwork();
    ~PrivateNetwork();
    PrivateNetwork(const PrivateNetwork&) = delete;
    PrivateNetwork& operator=(const PrivateNetwork&) = delete;

    /**
     * Joins the sides by a veth pair: host0 and device0 the first time, then host1 and device1, ...
     * @param hostAddress the host's address on it with its prefix length; empty for none
     * @param firstDeviceAddress the first of the devices' addresses, with its prefix length
     * @param deviceAddresses how many consecutive ones there are
     * @param rate how fast the device side may send, as tc(8) takes it ("1mbit"); empty for no limit
     */
    void addLink(const std::string& hostAddress, const std::string& firstDeviceAddress, int deviceAddresses = 1,
                 const std::string& rate = std::string());

    /// Takes the calling thread to @p side.
    void enter(Side side);

    /// Runs a command on @p side and waits for its success. The calling thread stays where it is.
    void run(Side side, const std::vector<std::string>& command, const std::string& input = std::string());

    /// Writes a kernel setting of one side, as in setting(HostSide, "net/ipv4/igmp_max_memberships", "0").
    void setSetting(Side side, const std::string& name, const std::string& value);

    /// The address @p index places after @p first; both without a prefix length.
    static std::string addressAfter(const std::string& first, int index);

    /// On one side for as long as it lives, then on the host side.
    class Scope
    {
    public:
        Scope(PrivateNetwork& network, Side side)
            : network(network)
        {
            network.enter(side);
        }
        // NOLINTNEXTLINE(bugprone-exception-escape): a thread on the wrong side must not go on.
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
