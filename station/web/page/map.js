// The world without internet: beacons whose place is known from what they sent, great circles, day and night.
/* global d3, topojson */
import { byId, get, makeSvg, number } from "./kit.js";

const WIDTH = 960, HEIGHT = 480;
const TWILIGHT_MS = 60000;

const world = byId("world");
const projection = d3.geoEquirectangular().fitSize([WIDTH, HEIGHT], { type: "Sphere" });
const path = d3.geoPath(projection);
let home = null;
const beacons = new Map(); // by callsign: { place, snr, hearing }
const layers = Object.fromEntries(["land", "night", "ways", "points"].map((name) => [name, makeSvg("g")]));

// The middle of a locator's field, as longitude and latitude; nothing when it is none.
function place(locator) {
    const text = locator.toUpperCase();
    if (!/^[A-R]{2}[0-9]{2}([A-X]{2})?$/.test(text)) return null;
    const letter = (k) => text.charCodeAt(k) - 65;
    const fine = text.length === 6;
    return [-180 + 20 * letter(0) + 2 * Number(text[2]) + (fine ? letter(4) / 12 + 1 / 24 : 1),
        -90 + 10 * letter(1) + Number(text[3]) + (fine ? letter(5) / 24 + 1 / 48 : 0.5)];
}

// Where the sun is overhead, to a degree or so.
function subsolarPoint(date) {
    const days = (date - Date.UTC(date.getUTCFullYear(), 0, 0)) / 864e5;
    const angle = 2 * Math.PI * (days - 81) / 365.24;
    const minutes = 9.87 * Math.sin(2 * angle) - 7.53 * Math.cos(angle) - 1.5 * Math.sin(angle);
    const hours = date.getUTCHours() + date.getUTCMinutes() / 60;
    return [-15 * (hours - 12 + minutes / 60), 23.44 * Math.sin(angle)];
}

function drawNight() {
    const [longitude, latitude] = subsolarPoint(new Date());
    const night = d3.geoCircle().center([longitude + 180, -latitude]).radius(90)();
    layers.night.replaceChildren(makeSvg("path", { class: "night", d: path(night) }));
}

function point(where, name, kind) {
    const [x, y] = projection(where);
    const right = x < WIDTH - 90;
    const text = makeSvg("text", { x: right ? x + 7 : x - 7, y: y + 4, "text-anchor": right ? "start" : "end" }, name);
    return makeSvg("g", {}, makeSvg("circle", { class: kind, cx: x, cy: y, r: 4 }), text);
}

function draw() {
    const known = [...beacons].filter(([, beacon]) => beacon.place);
    layers.ways.replaceChildren(...(home ? known : []).map(([, beacon]) => makeSvg("path",
        { class: "way", d: path({ type: "LineString", coordinates: [home.place, beacon.place] }) })));
    layers.points.replaceChildren(...known.map(([call, beacon]) => point(beacon.place, call, "beacon")),
        ...(home ? [point(home.place, home.name, "home")] : []));
    const far = known.map(([call, beacon]) => home
        ? `${call} ${number(6371 * d3.geoDistance(home.place, beacon.place), 0)} km` : call);
    const unknown = [...beacons.keys()].filter((call) => !beacons.get(call).place);
    byId("map-text").textContent = (far.length > 0 ? `Heard: ${far.join(", ")}.` : "No beacon has sent its locator yet.") +
        (unknown.length > 0 ? ` Of unknown place: ${unknown.join(", ")}.` : "");
}

function note(spot) {
    const before = beacons.get(spot.call);
    beacons.set(spot.call, { place: (spot.locator ? place(spot.locator) : null) ?? before?.place ?? null });
}

export function add(spots) {
    spots.forEach(note);
    draw();
}

export function showStation(status) {
    const where = place(status.locator);
    home = where && { place: where, name: status.callsign };
    draw();
}

export async function load() {
    const { beacons: all } = await get("/api/beacons");
    all.forEach(note);
    draw();
    return all.map((beacon) => beacon.call);
}

export async function begin() {
    world.append(...Object.values(layers), makeSvg("title", {}, "Beacons on a map of the world"));
    layers.land.append(makeSvg("path", { class: "grid", d: path(d3.geoGraticule().step([30, 30])()) }));
    drawNight();
    setInterval(drawNight, TWILIGHT_MS);
    const outline = await (await fetch("/land-110m.json")).json();
    layers.land.prepend(makeSvg("path", { class: "land", d: path(topojson.feature(outline, outline.objects.land)) }));
}
