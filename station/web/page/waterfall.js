// Waterfalls, one for each receiver: the newest row on top, frames drawn in where their spots say.
import { byId, clock, make, number, seconds } from "./kit.js";

const ROWS = 240;
const FRAME_HZ = 10; // that a frame is drawn wide
const QUIET_DB = 6, LOUD_DB = 26; // below and above the noise
const AXIS_PX = 18;

// From black over blue and yellow to white.
const STOPS = [[0, 4, 10, 32], [90, 20, 60, 140], [150, 40, 160, 190], [205, 250, 210, 80], [255, 255, 255, 255]];
const PALETTE = Array.from({ length: 256 }, (_, level) => {
    const above = Math.max(1, STOPS.findIndex(([at]) => at >= level));
    const [low, high] = [STOPS[above - 1], STOPS[above]];
    const part = (level - low[0]) / (high[0] - low[0]);
    return [1, 2, 3].map((k) => Math.round(low[k] + part * (high[k] - low[k])));
});

class Waterfall {
    constructor(name) {
        this.name = name;
        this.rows = []; // { utc, image }, the newest last
        this.spots = [];
        this.band = null;
        this.range = make("span");
        this.canvas = make("canvas");
        this.canvas.setAttribute("role", "img");
        this.figure = make("figure", {}, make("figcaption", {}, make("strong", {}, name), this.range), this.canvas);
        new ResizeObserver(() => this.drawSoon()).observe(this.canvas);
    }

    add(row) {
        const bytes = Uint8Array.from(atob(row.levels), (c) => c.charCodeAt(0));
        if (!this.band || this.band.low !== row.low_hz || this.band.high !== row.high_hz ||
            this.band.points !== bytes.length) {
            this.band = { low: row.low_hz, high: row.high_hz, points: bytes.length };
            this.rows = [];
        }
        this.rows.push({ utc: seconds(row.utc), bytes, step: row.step_db });
        if (this.rows.length > ROWS) this.rows.shift();
        this.drawSoon();
    }

    addSpots(spots) {
        this.spots.push(...spots.map((spot) => ({ call: spot.call, hz: spot.freq_hz, from: seconds(spot.utc_start),
            until: seconds(spot.utc_end), snr: spot.snr_db })));
        if (this.rows.length > 0) this.spots = this.spots.filter((spot) => spot.until > this.rows[0].utc);
        this.drawSoon();
    }

    drawSoon() {
        if (this.asked) return;
        this.asked = true;
        requestAnimationFrame(() => {
            this.asked = false;
            this.draw();
        });
    }

    // Where a time is, in rows from the top.
    rowAt(utc) {
        const newest = this.rows.at(-1).utc;
        const oldest = this.rows[0].utc;
        const pace = Math.max((newest - oldest) / Math.max(this.rows.length - 1, 1), 0.05);
        return (newest - utc) / pace;
    }

    image() {
        const { points } = this.band;
        const picture = new OffscreenCanvas(points, ROWS);
        const pixels = new ImageData(points, ROWS);
        const levels = Uint8Array.from(this.rows.flatMap((row) => [...row.bytes.filter((_, k) => k % 8 === 0)])).sort();
        const noise = levels[levels.length >> 1];
        this.rows.toReversed().forEach((row, y) => {
            const scale = row.step * 255 / (QUIET_DB + LOUD_DB);
            for (let x = 0; x < points; x++) {
                const level = Math.max(0, Math.min(255, Math.round((row.bytes[x] - noise + QUIET_DB / row.step) * scale)));
                const at = 4 * (y * points + x);
                [pixels.data[at], pixels.data[at + 1], pixels.data[at + 2]] = PALETTE[level];
                pixels.data[at + 3] = 255;
            }
        });
        picture.getContext("2d").putImageData(pixels, 0, 0);
        return picture;
    }

    draw() {
        const scale = devicePixelRatio;
        const width = this.canvas.clientWidth, height = this.canvas.clientHeight;
        if (this.rows.length === 0 || width === 0) return;
        this.canvas.width = width * scale;
        this.canvas.height = height * scale;
        const context = this.canvas.getContext("2d");
        context.scale(scale, scale);
        context.imageSmoothingEnabled = false;
        const plot = height - AXIS_PX;
        context.drawImage(this.image(), 0, 0, width, plot);
        this.drawAxis(context, width, plot);
        const drawn = this.drawFrames(context, width, plot);
        const { low, high } = this.band;
        this.range.textContent = `${number(low, 0)} to ${number(high, 0)} Hz, ${Math.round(this.rowAgeSeconds())} s`;
        this.canvas.setAttribute("aria-label",
            `Waterfall of ${this.name}, ${number(low, 0)} to ${number(high, 0)} Hz. Frames: ${drawn.join(", ") || "none"}.`);
    }

    rowAgeSeconds() {
        return this.rows.at(-1).utc - this.rows[0].utc;
    }

    drawAxis(context, width, plot) {
        const { low, high } = this.band;
        const step = [10, 20, 50, 100, 200, 500, 1000, 2000, 5000, 10000, 50000, 100000]
            .find((hz) => (high - low) / hz <= width / 60) ?? high - low;
        context.font = "11px system-ui, sans-serif";
        context.textAlign = "center";
        for (let hz = Math.ceil(low / step) * step; hz < high; hz += step) {
            const x = (hz - low) / (high - low) * width;
            context.fillStyle = "#9fb3c8";
            context.fillRect(x, plot, 1, 4);
            if (x > 18 && x < width - 18) context.fillText(String(hz), x, plot + 14);
        }
    }

    drawFrames(context, width, plot) {
        const { low, high } = this.band;
        const rowPx = plot / ROWS;
        const drawn = [], labels = [];
        context.textAlign = "left";
        context.font = "bold 12px system-ui, sans-serif";
        for (const spot of this.spots) {
            const top = this.rowAt(spot.until) * rowPx, bottom = this.rowAt(spot.from) * rowPx;
            if (spot.hz < low || spot.hz > high || top > plot || bottom < 0) continue;
            const middle = (spot.hz - low) / (high - low) * width;
            const half = Math.max(FRAME_HZ / 2 / (high - low) * width, 5);
            context.strokeStyle = "#fff";
            context.lineWidth = 1.5;
            context.strokeRect(middle - half, Math.max(top, 1), 2 * half, Math.min(bottom, plot - 1) - Math.max(top, 1));
            const text = `${spot.call} ${spot.snr === null ? "" : number(spot.snr, 0)}`;
            const length = context.measureText(text).width + 6;
            const left = middle + half + 3 + length < width ? middle + half + 3 : middle - half - 3 - length;
            const base = Math.max(top, 1);
            // Where frames crowd, the first to be heard have their labels.
            const free = base + 16 < plot && labels.every((label) =>
                left > label.left + label.length || label.left > left + length || Math.abs(base - label.base) > 16);
            if (free) {
                labels.push({ left, length, base });
                context.fillStyle = "rgb(0 0 0 / 65%)";
                context.fillRect(left, base, length, 16);
                context.fillStyle = "#fff";
                context.fillText(text, left + 3, base + 12);
            }
            drawn.push(`${spot.call} at ${number(spot.hz, 0)} Hz from ${clock(new Date(1000 * spot.from).toISOString())}`);
        }
        return drawn;
    }
}

const all = new Map();

function of(name) {
    if (!all.has(name)) {
        const made = new Waterfall(name);
        all.set(name, made);
        if (all.size === 1) byId("waterfall-list").replaceChildren();
        byId("waterfall-list").append(made.figure);
    }
    return all.get(name);
}

export function addRow(row) {
    of(row.receiver ?? "").add(row);
}

export function addSpots(spots) {
    for (const [name, fall] of all) {
        const own = spots.filter((spot) => spot.receiver === name);
        if (own.length > 0) fall.addSpots(own);
    }
}

// What was heard before the page was opened.
export function begin(histories, spots) {
    for (const { rows } of histories) {
        if (rows.length === 0) continue;
        const fall = of(rows[0].receiver ?? "");
        fall.rows = [];
        fall.spots = [];
        rows.forEach((row) => fall.add(row));
    }
    addSpots(spots);
}
