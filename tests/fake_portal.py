'''A desktop portal with a FileChooser, for the photo picker's tests.

Run as a dbusmock template on a private session bus:
  python3 -m dbusmock --template tests/fake_portal.py -p '{"answer": ...}'
Every OpenFile is answered after a short delay with the "answer" parameter:
a file path (picked), "cancel", or "other" (the dialog ended otherwise).
With "record": a file path, each call's title and options, and each Close
of a request, are appended to that file, one JSON line each. A closed
request is answered all the same, as a portal may have answered before the
Close arrived; "delay_ms" sets how long the answer takes (100 by default).
'''

import json

import dbus
from dbusmock import mockobject
from gi.repository import GLib

BUS_NAME = 'org.freedesktop.portal.Desktop'
MAIN_OBJ = '/org/freedesktop/portal/desktop'
MAIN_IFACE = 'org.freedesktop.portal.FileChooser'
SYSTEM_BUS = False

REQUEST_IFACE = 'org.freedesktop.portal.Request'


def load(mock, parameters):
    answer = parameters.get('answer', 'cancel')
    record = parameters.get('record')
    delay_ms = int(parameters.get('delay_ms', 100))
    counter = [0]

    def write_record(entry):
        if record:
            with open(record, 'a', encoding='utf-8') as out:
                out.write(json.dumps(entry) + '\n')

    def close(request):
        write_record({'closed': request.path})

    def respond(path):
        if answer == 'cancel':
            code, results = 1, {}
        elif answer == 'other':
            code, results = 2, {}
        else:
            uri = GLib.filename_to_uri(answer, None)
            code, results = 0, {'uris': dbus.Array([uri], signature='s')}
        mockobject.objects[path].EmitSignal(
            REQUEST_IFACE, 'Response', 'ua{sv}',
            [dbus.UInt32(code), dbus.Dictionary(results, signature='sv')])
        return False

    def open_file(self, parent_window, title, options):
        counter[0] += 1
        token = str(options.get('handle_token', 'token%d' % counter[0]))
        # Not under the caller's unique name: callers must follow the
        # handle the call returns.
        path = '%s/request/fake/%s' % (MAIN_OBJ, token)
        entry = {
            'parent_window': str(parent_window),
            'title': str(title),
            'modal': bool(options.get('modal', False)),
            'filters': [[str(name), [[int(kind), str(pattern)] for kind, pattern in rules]]
                        for name, rules in options.get('filters', [])],
        }
        if 'current_folder' in options:
            entry['current_folder'] = bytes(options['current_folder']).decode('utf-8', 'replace')
        write_record(entry)
        mock.AddObject(path, REQUEST_IFACE, {}, [])
        mockobject.objects[path].AddMethod(REQUEST_IFACE, 'Close', '', '', close)
        GLib.timeout_add(delay_ms, respond, path)
        return dbus.ObjectPath(path)

    mock.AddProperty(MAIN_IFACE, 'version', dbus.UInt32(3))
    mock.AddMethod(MAIN_IFACE, 'OpenFile', 'ssa{sv}', 'o', open_file)
