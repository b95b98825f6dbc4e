'''GeoClue 2 on a private bus, for the GeoClue location source's tests.

Run as a dbusmock template, with DBUS_SYSTEM_BUS_ADDRESS the test's bus:
  python3 -m dbusmock --system --template tests/fake_geoclue.py -p '{...}'
Parameters (all optional):
  "locations": a list of {"latitude", "longitude", "accuracy", "altitude",
      "speed", "heading", "timestamp": [seconds, microseconds]}; after each
      Start they are announced one by one with LocationUpdated, "delay_ms"
      apart (50 by default). A missing altitude is GeoClue's "unknown".
  "deny": true refuses every Start with org.freedesktop.DBus.Error.AccessDenied.
  "no_get_client": true answers only CreateClient, as newer services do.
  "record": a file path; each Start (with the client's DesktopId,
      RequestedAccuracyLevel and DistanceThreshold at that moment) and each
      Stop are appended to it, one JSON line each.
'''

import json

import dbus
from dbusmock import mockobject
from gi.repository import GLib

BUS_NAME = 'org.freedesktop.GeoClue2'
MAIN_OBJ = '/org/freedesktop/GeoClue2/Manager'
MAIN_IFACE = 'org.freedesktop.GeoClue2.Manager'
SYSTEM_BUS = True

CLIENT_IFACE = 'org.freedesktop.GeoClue2.Client'
LOCATION_IFACE = 'org.freedesktop.GeoClue2.Location'
UNKNOWN_ALTITUDE = -1.7976931348623157e+308


def load(mock, parameters):
    locations = parameters.get('locations', [])
    deny = bool(parameters.get('deny', False))
    record = parameters.get('record')
    delay_ms = int(parameters.get('delay_ms', 50))
    counters = {'clients': 0, 'locations': 0}

    def write_record(entry):
        if record:
            with open(record, 'a', encoding='utf-8') as out:
                out.write(json.dumps(entry) + '\n')

    def announce(client_path, index, old_path):
        if index >= len(locations):
            return False
        client = mockobject.objects.get(client_path)
        if client is None or not client.props[CLIENT_IFACE]['Active']:
            return False
        fix = locations[index]
        counters['locations'] += 1
        path = '/org/freedesktop/GeoClue2/Location/%d' % counters['locations']
        seconds, micros = fix.get('timestamp', [0, 0])
        mock.AddObject(path, LOCATION_IFACE, {
            'Latitude': dbus.Double(fix['latitude']),
            'Longitude': dbus.Double(fix['longitude']),
            'Accuracy': dbus.Double(fix.get('accuracy', 0)),
            'Altitude': dbus.Double(fix.get('altitude', UNKNOWN_ALTITUDE)),
            'Speed': dbus.Double(fix.get('speed', -1)),
            'Heading': dbus.Double(fix.get('heading', -1)),
            'Description': '',
            'Timestamp': dbus.Struct((dbus.UInt64(seconds), dbus.UInt64(micros)), signature='tt'),
        }, [])
        client.props[CLIENT_IFACE]['Location'] = dbus.ObjectPath(path)
        client.EmitSignal(CLIENT_IFACE, 'LocationUpdated', 'oo',
                          [dbus.ObjectPath(old_path), dbus.ObjectPath(path)])
        GLib.timeout_add(delay_ms, announce, client_path, index + 1, path)
        return False

    def start(self):
        props = self.props[CLIENT_IFACE]
        write_record({'call': 'Start', 'DesktopId': str(props['DesktopId']),
                      'RequestedAccuracyLevel': int(props['RequestedAccuracyLevel']),
                      'DistanceThreshold': int(props['DistanceThreshold'])})
        if deny:
            raise dbus.exceptions.DBusException(
                'Geolocation disabled for UID 1000',
                name='org.freedesktop.DBus.Error.AccessDenied')
        props['Active'] = True
        GLib.timeout_add(delay_ms, announce, self.path, 0, '/')

    def stop(self):
        write_record({'call': 'Stop'})
        self.props[CLIENT_IFACE]['Active'] = False

    def get_client(self):
        counters['clients'] += 1
        path = '/org/freedesktop/GeoClue2/Client/%d' % counters['clients']
        mock.AddObject(path, CLIENT_IFACE, {
            'Location': dbus.ObjectPath('/'),
            'DistanceThreshold': dbus.UInt32(0),
            'TimeThreshold': dbus.UInt32(0),
            'DesktopId': '',
            'RequestedAccuracyLevel': dbus.UInt32(0),
            'Active': False,
        }, [])
        client = mockobject.objects[path]
        client.AddMethod(CLIENT_IFACE, 'Start', '', '', start)
        client.AddMethod(CLIENT_IFACE, 'Stop', '', '', stop)
        return dbus.ObjectPath(path)

    mock.AddProperty(MAIN_IFACE, 'InUse', False)
    mock.AddProperty(MAIN_IFACE, 'AvailableAccuracyLevel', dbus.UInt32(8))
    if not parameters.get('no_get_client', False):
        mock.AddMethod(MAIN_IFACE, 'GetClient', '', 'o', get_client)
    mock.AddMethod(MAIN_IFACE, 'CreateClient', '', 'o', get_client)
