"""Asks the daemon on the session bus as any program with python-dbus would.

dbus_citizen.py DIR: DIR holds the interface descriptions that are installed.
"""

import pathlib
import sys
import xml.etree.ElementTree as ElementTree

import dbus

SERVICE = "tevra.SecurityProvider"
SERVED_BY = {
    "tevra.interfaces.ISecurityProvider": SERVICE,
    "tevra.interfaces.IAdministration1": SERVICE,
    "krand.interfaces.PermissionTarget": "krand.target.permission",
}
ERROR = "org.freedesktop.DBus.Error."

bus = dbus.SessionBus()


def object_of(interface: str) -> dbus.proxies.ProxyObject:
    return bus.get_object(SERVED_BY[interface], "/" + interface.replace(".", "/"))


def interface_of(name: str) -> dbus.Interface:
    return dbus.Interface(object_of(name), name)


def standard(path: str, interface: str) -> dbus.Interface:
    return dbus.Interface(bus.get_object(SERVICE, path, introspect=False), interface)


def described(document: str, interface: str) -> str:
    found = ElementTree.fromstring(document).find(f"./interface[@name='{interface}']")
    assert found is not None, f"{interface} is not described"
    return ElementTree.canonicalize(ElementTree.tostring(found), strip_text=True)


def error_of(call, *arguments) -> str:
    try:
        call(*arguments)
    except dbus.DBusException as error:
        return error.get_dbus_name()
    raise AssertionError(f"{arguments} was answered")


def check_descriptions(directory: pathlib.Path) -> None:
    installed = {file.stem for file in directory.glob("*.xml")}
    assert installed == set(SERVED_BY), installed
    for name in SERVED_BY:
        answered = dbus.Interface(object_of(name), "org.freedesktop.DBus.Introspectable").Introspect()
        written = (directory / f"{name}.xml").read_text()
        assert described(written, name) == described(answered, name), f"{name}.xml differs"


def check_calls() -> None:
    # python-dbus finds the types by introspection: a bytes object goes as "ay".
    provider = interface_of("tevra.interfaces.ISecurityProvider")
    assert not provider.IsProtected(b"/system")
    days, expires = provider.GetExpiration(b"no one")
    assert isinstance(days, dbus.Int32) and isinstance(bytes(expires), bytes)
    assert provider.GetAllowedPaths(b"NO_TOKEN").signature == "ay"
    administration = interface_of("tevra.interfaces.IAdministration1")
    assert bytes(administration.GetAccounts(b"", b"", 0)).startswith(b'{"')
    rules = interface_of("krand.interfaces.PermissionTarget")
    status, _ = rules.getAccessRule(b"/no such rule")
    assert status in (0, 1)


def check_errors() -> None:
    nowhere = standard("/nowhere", "org.freedesktop.DBus.Introspectable")
    assert error_of(nowhere.Introspect) == ERROR + "UnknownObject"
    path = "/tevra/interfaces/ISecurityProvider"
    stranger = standard(path, "tevra.interfaces.IAdministration1")
    assert error_of(stranger.GetAccounts) == ERROR + "UnknownInterface"
    provider = standard(path, "tevra.interfaces.ISecurityProvider")
    assert error_of(provider.Nothing) == ERROR + "UnknownMethod"
    assert error_of(provider.IsProtected, "a text") == ERROR + "InvalidArgs"
    properties = standard(path, "org.freedesktop.DBus.Properties")
    name = "tevra.interfaces.ISecurityProvider"
    assert error_of(properties.Get, name, "Nothing") == ERROR + "UnknownProperty"
    assert error_of(properties.Set, name, "RefusedCalls", dbus.UInt64(0, variant_level=1)) == ERROR + "PropertyReadOnly"
    assert set(properties.GetAll(name)) == {"RefusedCalls"}


def check_peer() -> None:
    peer = standard("/", "org.freedesktop.DBus.Peer")
    peer.Ping()
    assert len(peer.GetMachineId()) == 32


check_descriptions(pathlib.Path(sys.argv[1]))
check_calls()
check_errors()
check_peer()
