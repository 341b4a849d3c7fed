#include <bench/Measurement.h>

#include <cstdio>
#include <cstdlib>
#include <libgupnp/gupnp.h>

using Velmora::Bench::Measurement;

namespace {

struct Host
{
    explicit Host(int devices)
        : measurement(devices)
        , loop(g_main_loop_new(nullptr, FALSE))
    {
    }

    Measurement measurement;
    GMainLoop* loop;
};

void onNotified(GUPnPServiceProxy* proxy, const char* /*name*/, GValue* value, gpointer host)
{
    Host* const self = static_cast<Host*>(host);
    GUri* const location =
        g_uri_parse(gupnp_service_info_get_location(GUPNP_SERVICE_INFO(proxy)), G_URI_FLAGS_NONE, nullptr);
    const char* const codes = g_value_get_string(value);
    if (self->measurement.add(codes ? codes : "", g_uri_get_host(location)))
        g_main_loop_quit(self->loop);
    g_uri_unref(location);
}

void onIntrospected(GObject* object, GAsyncResult* result, gpointer host)
{
    GUPnPServiceIntrospection* const introspection =
        gupnp_service_info_introspect_finish(GUPNP_SERVICE_INFO(object), result, nullptr);
    if (!introspection)
        return;
    g_object_unref(introspection);
    GUPnPServiceProxy* const proxy = GUPNP_SERVICE_PROXY(object);
    gupnp_service_proxy_add_notify(proxy, "KO", G_TYPE_STRING, onNotified, host);
    gupnp_service_proxy_set_subscribed(proxy, TRUE);
}

void onAvailable(GUPnPControlPoint* /*controlPoint*/, GUPnPServiceProxy* proxy, gpointer host)
{
    g_object_ref(proxy);
    gupnp_service_info_introspect_async(GUPNP_SERVICE_INFO(proxy), nullptr, onIntrospected, host);
}

gboolean onTimeout(gpointer host)
{
    g_main_loop_quit(static_cast<Host*>(host)->loop);
    return G_SOURCE_REMOVE;
}

} // namespace

int main(int argc, char** argv)
{
    const Velmora::Bench::Options options(argc, argv);
    Host host(options.devices);

    host.measurement.begin();
    GInetAddress* const address = g_inet_address_new_from_string(Velmora::Bench::HOST_ADDRESS);
    GError* error = nullptr;
    GUPnPContext* const context = gupnp_context_new_for_address(address, 0, GSSDP_UDA_VERSION_1_0, &error);
    if (!context) {
        std::fprintf(stderr, "%s\n", error->message);
        return EXIT_FAILURE;
    }
    GUPnPControlPoint* const controlPoint =
        gupnp_control_point_new(context, "urn:schemas-velmora-it:service:keyobjects:1");
    g_signal_connect(controlPoint, "service-proxy-available", G_CALLBACK(onAvailable), &host);
    gssdp_resource_browser_set_active(GSSDP_RESOURCE_BROWSER(controlPoint), TRUE);
    g_timeout_add(static_cast<guint>(options.timeout), onTimeout, &host);
    g_main_loop_run(host.loop);
    host.measurement.end();

    gssdp_resource_browser_set_active(GSSDP_RESOURCE_BROWSER(controlPoint), FALSE);
    host.measurement.beginAgain();
    gssdp_resource_browser_set_active(GSSDP_RESOURCE_BROWSER(controlPoint), TRUE);
    while (!host.measurement.takeSearch())
        g_main_context_iteration(nullptr, TRUE);
    host.measurement.print("gupnp", "1.6");
    return 0;
}
