#!/usr/bin/python3
# Writes, on standard output, an NMEA 0183 log of a walk along a straight
# line (a great circle from the start, on a sphere of the Earth's mean
# radius): one fix per second, each as GSA, GGA, GST and RMC sentences with
# valid checksums, so that gpsd sees a 3-D fix with its error estimates
# (GSA's dilutions of precision, written before the position so that each
# fix's estimates are its own, and GST's deviations). Fixes inside the gap
# are reported without a fix (GGA quality 0, GSA mode 1, RMC status V).
# gpsfake plays the log; the tests and the demo both use it.
#
# Usage: nmea-walk.py [--lat 52.52] [--lon 13.405] [--bearing 90]
#                     [--speed 10] [--count 40] [--gap 15:20] [--lead N]
#   --gap A:B  fixes A..B-1 (0-based) have no fix
#   --lead N   N TXT sentences first, time for a client to connect before
#              gpsfake plays the first fix
# Each fix's time is 2026-11-22 12:00:00 UTC plus its index in seconds.
import argparse
import datetime
import math
import sys

EARTH_RADIUS = 6371008.8
# Error estimates in meters, as GST reports them.
LAT_ERR = 3.0
LON_ERR = 4.0
ALT_ERR = 6.0
ALTITUDE = 34.5
# Dilutions of precision, as GSA reports them; gpsd derives its error
# estimates (TPV eph and epv) from them.
PDOP, HDOP, VDOP = 1.6, 0.9, 1.3


def checksum(body):
    value = 0
    for ch in body.encode("ascii"):
        value ^= ch
    return "$%s*%02X" % (body, value)


def destination(lat, lon, bearing, distance):
    phi1, lam1, theta = math.radians(lat), math.radians(lon), math.radians(bearing)
    delta = distance / EARTH_RADIUS
    phi2 = math.asin(math.sin(phi1) * math.cos(delta) +
                     math.cos(phi1) * math.sin(delta) * math.cos(theta))
    lam2 = lam1 + math.atan2(math.sin(theta) * math.sin(delta) * math.cos(phi1),
                             math.cos(delta) - math.sin(phi1) * math.sin(phi2))
    return math.degrees(phi2), (math.degrees(lam2) + 540) % 360 - 180


def angle(value, degree_digits, positive, negative):
    hemisphere = positive if value >= 0 else negative
    value = abs(value)
    degrees = int(value)
    minutes = (value - degrees) * 60
    # 7 decimals of a minute: about 0.2 mm, well under 1e-6 degrees.
    text = "%0*d%010.7f" % (degree_digits, degrees, minutes)
    if text[degree_digits:degree_digits + 2] == "60":  # rounding reached a whole degree
        text = "%0*d%010.7f" % (degree_digits, degrees + 1, 0.0)
    return text, hemisphere


def sentences(index, when, lat, lon, course, speed, has_fix):
    hhmmss = when.strftime("%H%M%S") + ".00"
    ddmmyy = when.strftime("%d%m%y")
    lat_text, ns = angle(lat, 2, "N", "S")
    lon_text, ew = angle(lon, 3, "E", "W")
    knots = speed * 3600 / 1852
    if has_fix:
        yield "GPGSA,A,3,01,02,03,04,05,06,07,08,,,,,%.1f,%.1f,%.1f" % (PDOP, HDOP, VDOP)
        yield "GPGGA,%s,%s,%s,%s,%s,1,08,%.1f,%.1f,M,0.0,M,," % (
            hhmmss, lat_text, ns, lon_text, ew, HDOP, ALTITUDE)
        yield "GPGST,%s,1.0,%.1f,%.1f,0.0,%.1f,%.1f,%.1f" % (
            hhmmss, LON_ERR, LAT_ERR, LAT_ERR, LON_ERR, ALT_ERR)
        yield "GPRMC,%s,A,%s,%s,%s,%s,%.3f,%.2f,%s,,,A" % (
            hhmmss, lat_text, ns, lon_text, ew, knots, course, ddmmyy)
    else:
        yield "GPGSA,A,1,,,,,,,,,,,,,,,"
        yield "GPGGA,%s,,,,,0,00,,,M,,M,," % hhmmss
        yield "GPRMC,%s,V,,,,,,,%s,,,N" % (hhmmss, ddmmyy)


def main():
    parser = argparse.ArgumentParser(description="NMEA log of a straight walk")
    parser.add_argument("--lat", type=float, default=52.52)
    parser.add_argument("--lon", type=float, default=13.405)
    parser.add_argument("--bearing", type=float, default=90.0)
    parser.add_argument("--speed", type=float, default=10.0, help="meters per second")
    parser.add_argument("--count", type=int, default=40)
    parser.add_argument("--gap", default="", help="A:B, fixes A..B-1 without a fix")
    parser.add_argument("--lead", type=int, default=0,
                        help="TXT sentences (no position, no fix) before the walk")
    args = parser.parse_args()
    gap = range(0)
    if args.gap:
        first, last = args.gap.split(":")
        gap = range(int(first), int(last))
    start = datetime.datetime(2026, 11, 22, 12, 0, 0, tzinfo=datetime.timezone.utc)
    out = sys.stdout
    for _ in range(args.lead):
        out.write(checksum("GPTXT,01,01,02,lead-in") + "\r\n")
    for index in range(args.count):
        lat, lon = destination(args.lat, args.lon, args.bearing, args.speed * index)
        # The course along a great circle changes as it goes: the bearing
        # from this point on towards the next.
        nlat, nlon = destination(args.lat, args.lon, args.bearing, args.speed * (index + 1))
        y = math.sin(math.radians(nlon - lon)) * math.cos(math.radians(nlat))
        x = (math.cos(math.radians(lat)) * math.sin(math.radians(nlat)) -
             math.sin(math.radians(lat)) * math.cos(math.radians(nlat)) *
             math.cos(math.radians(nlon - lon)))
        course = (math.degrees(math.atan2(y, x)) + 360) % 360
        when = start + datetime.timedelta(seconds=index)
        for body in sentences(index, when, lat, lon, course, args.speed, index not in gap):
            out.write(checksum(body) + "\r\n")
    out.flush()


if __name__ == "__main__":
    main()
