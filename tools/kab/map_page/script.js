'use strict';
// Draws the model of the page. Texts of disks reach the document through textContent and setAttribute only.

const model = JSON.parse(document.getElementById('model').textContent);
const SVG = 'http://www.w3.org/2000/svg';
const LEFT = 118;       // lane names
const RIGHT = 12;
const COLOURS = 12;
const BLOCK = 4096;
const SEVERITIES = ['damage', 'warning', 'info'];
const SHAPES = {damage: 'M0 0l-9-17h18z', warning: 'M0 0l-8-9 8-9 8 9z', info: 'M0 0l-3-4a6 6 0 1 1 6 0z'};
const DEEP = new Set(['meta', 'superblock', 'bitmap', 'xmap', 'hmap']);
const LANES = {allocation: 'allocation', density: 'density', newer: 'newer in log', held: 'held for disk'};
const calm = matchMedia('(prefers-reduced-motion: reduce)');

/* ---- Elements and texts ---- */

function make(parent, name, attributes = {}, text = '') {
  const element = document.createElementNS(parent.namespaceURI === SVG || name === 'svg' ? SVG : parent.namespaceURI, name);
  for (const [key, value] of Object.entries(attributes)) element.setAttribute(key, value);
  if (text !== '') element.textContent = text;
  parent.append(element);
  return element;
}

function bytes(count) {
  const units = ['B', 'KiB', 'MiB', 'GiB', 'TiB', 'PiB'];
  let unit = 0;
  while (count >= 1024 && unit < units.length - 1) {
    count /= 1024;
    ++unit;
  }
  return `${count % 1 === 0 ? count : count.toFixed(count < 10 ? 2 : 1)} ${units[unit]}`;
}

const digits = new Intl.NumberFormat('en');
const number = (value) => digits.format(value);
const clamp = (value, low, high) => Math.min(Math.max(value, low), high);

function shape(parent, severity) {
  const icon = make(parent, 'svg', {viewBox: '-10 -19 20 20', 'aria-hidden': 'true'});
  make(icon, 'path', {class: `f-${severity}`, d: SHAPES[severity]});
}

function swatch(parent, colour) {
  const icon = make(parent, 'svg', {viewBox: '0 0 12 12', 'aria-hidden': 'true'});
  make(icon, 'rect', {class: colour, width: 12, height: 12, rx: 2});
}

let saying = 0;
function say(text) {
  clearTimeout(saying);
  saying = setTimeout(() => { document.getElementById('status').textContent = text; }, 150);
}

const plural = (count, one, many = `${one}s`) => `${number(count)} ${count === 1 ? one : many}`;
const tip = document.getElementById('tip');
const state = {selected: -1, component: -1, shown: new Set(SEVERITIES), back: null};

function findingText(finding) {
  const place = finding.offset === null ? '' : ` at ${number(finding.offset)}, ${finding.region}`;
  return `${finding.severity} ${finding.code}${place}: ${finding.text}`;
}

// The part of a line between two verticals; null when there is none.
function clip(x1, y1, x2, y2, low, high) {
  if ((x1 < low && x2 < low) || (x1 > high && x2 > high)) return null;
  const at = (x) => y1 + (y2 - y1) * (x - x1) / (x2 - x1);
  const end = (x, y) => (x < low ? [low, at(low)] : x > high ? [high, at(high)] : [x, y]);
  const [fromX, fromY] = end(x1, y1);
  const [toX, toY] = end(x2, y2);
  return `M${fromX.toFixed(1)} ${fromY.toFixed(1)}L${toX.toFixed(1)} ${toY.toFixed(1)}`;
}

/* ---- One disk ---- */

class DiskView {
  constructor(parent, index) {
    this.index = index;
    this.disk = model.disks[index];
    this.start = 0;
    this.end = this.disk.size;
    const disk = this.disk;
    const name = `${disk.title}, ${disk.uuid}`;
    const card = make(parent, 'section', {class: 'disk', 'aria-label': name, id: `disk-${index}`});
    const head = make(card, 'div', {class: 'head'});
    make(head, 'h2', {}, disk.title[0].toUpperCase() + disk.title.slice(1));
    const facts = make(head, 'span', {class: 'facts'});
    make(facts, 'span', {class: 'uuid'}, disk.uuid);
    facts.append(` · ${bytes(disk.size)} · ${disk.layout}${disk.encrypted ? ' · encrypted' : ''} · ${disk.path}`);
    this.range = make(head, 'span', {class: 'view'});
    const button = (label, sign, act) => {
      const made = make(head, 'button', {type: 'button', 'aria-label': `${label}: ${disk.title}`}, sign);
      made.addEventListener('click', act);
      return made;
    };
    this.out = button('Zoom out', '−', () => this.zoom(2));
    this.in = button('Zoom in', '+', () => this.zoom(0.5));
    this.whole = button('Whole disk', 'Whole disk', () => this.show(0, disk.size));
    this.plot = make(card, 'svg', {class: 'plot', tabindex: 0, role: 'group', 'aria-roledescription': 'zoomable map',
      'aria-label': name, 'aria-describedby': 'help'});
    this.chips(make(card, 'ul', {class: 'chips', 'aria-label': `Regions of ${disk.title}`}));
    this.listen();
    new ResizeObserver(() => this.draw()).observe(this.plot);
  }

  chips(list) {
    for (const region of this.disk.regions) {
      const chip = make(make(list, 'li'), 'button', {type: 'button'});
      swatch(chip, `k-${region.kind}`);
      make(chip, 'span', {}, region.name);
      make(chip, 'small', {}, bytes(region.length));
      chip.addEventListener('click', () => this.showRange(region.offset, region.length));
    }
    for (const chain of this.disk.chains.filter((each) => each.segments.length)) {
      const chip = make(make(list, 'li'), 'button', {type: 'button'}, chain.log);
      make(chip, 'small', {}, plural(chain.blocks, 'block'));
      const first = Math.min(...chain.segments.map((segment) => segment.offset));
      const end = Math.max(...chain.segments.map((segment) => segment.offset + segment.blocks * BLOCK));
      chip.addEventListener('click', () => this.showRange(first, end - first));
    }
    const holders = this.disk.strips.filter((strip) => strip.kind === 'held').flatMap((strip) => strip.owners);
    for (const slot of [...new Set(holders)].filter((owner) => owner >= 0).sort()) {
      const item = make(list, 'li', {class: 'key'});
      swatch(item, `c${slot % COLOURS}`);
      item.append(`held for disk ${slot}`);
    }
  }

  listen() {
    const plot = this.plot;
    plot.addEventListener('keydown', (event) => {
      const span = this.end - this.start;
      const keys = {
        '+': () => this.zoom(0.5), '=': () => this.zoom(0.5), '-': () => this.zoom(2), '−': () => this.zoom(2),
        ArrowLeft: () => this.show(this.start - span / 4, this.end - span / 4),
        ArrowRight: () => this.show(this.start + span / 4, this.end + span / 4),
        0: () => this.show(0, this.disk.size), Home: () => this.show(0, this.disk.size),
      };
      if (!keys[event.key] || event.ctrlKey || event.metaKey || event.altKey) return;
      event.preventDefault();
      keys[event.key]();
    });
    plot.addEventListener('wheel', (event) => {
      if (event.ctrlKey) {
        event.preventDefault();
        this.zoom(Math.exp(clamp(event.deltaY, -60, 60) / 100), this.offsetAt(event), false);
      } else if (Math.abs(event.deltaX) > Math.abs(event.deltaY)) {
        event.preventDefault();
        const move = event.deltaX / this.width * (this.end - this.start);
        this.show(this.start + move, this.end + move, false);
      }
    }, {passive: false});
    plot.addEventListener('dblclick', (event) => this.zoom(0.25, this.offsetAt(event)));
    plot.addEventListener('pointerdown', (event) => {
      if (event.button !== 0 || event.target.closest('.pin')) return;
      this.drag = {x: event.clientX, start: this.start, end: this.end};
      plot.setPointerCapture(event.pointerId);
    });
    plot.addEventListener('pointermove', (event) => {
      if (this.drag) {
        plot.classList.add('dragging');
        const move = (this.drag.x - event.clientX) / this.width * (this.drag.end - this.drag.start);
        this.show(this.drag.start + move, this.drag.end + move, false);
      }
      this.explain(event);
    });
    for (const name of ['pointerup', 'pointercancel']) {
      plot.addEventListener(name, () => {
        this.drag = null;
        plot.classList.remove('dragging');
      });
    }
    plot.addEventListener('pointerleave', () => { tip.hidden = true; });
  }

  get width() { return Math.max(this.plot.clientWidth - LEFT - RIGHT, 50); }
  x(offset) { return LEFT + (offset - this.start) / (this.end - this.start) * this.width; }
  offsetAt(event) {
    const share = (event.clientX - this.plot.getBoundingClientRect().left - LEFT) / this.width;
    return this.start + clamp(share, 0, 1) * (this.end - this.start);
  }

  zoom(factor, around = (this.start + this.end) / 2, smooth = true) {
    const span = clamp((this.end - this.start) * factor, Math.min(4 * BLOCK, this.disk.size), this.disk.size);
    const start = around - (around - this.start) / (this.end - this.start) * span;
    this.show(start, start + span, smooth);
  }

  showRange(offset, length) {
    const margin = Math.max(length * 0.05, 2 * BLOCK);
    this.show(offset - margin, offset + length + margin);
  }

  show(start, end, smooth = true) {
    const span = clamp(end - start, Math.min(BLOCK, this.disk.size), this.disk.size);
    const to = clamp((start + end) / 2 - span / 2, 0, this.disk.size - span);
    this.goal = [to, to + span];
    cancelAnimationFrame(this.frame);
    say(`${this.disk.title}: ${bytes(Math.round(to))} to ${bytes(Math.round(to + span))}`);
    if (!smooth || calm.matches) return this.settle();
    const from = [this.start, this.end];
    const begun = performance.now();
    const step = (now) => {
      const share = clamp((now - begun) / 220, 0, 1);
      if (share >= 1) return this.settle();
      const eased = 1 - (1 - share) ** 3;
      this.start = from[0] + (to - from[0]) * eased;
      this.end = from[1] + (to + span - from[1]) * eased;
      this.draw();
      this.frame = requestAnimationFrame(step);
    };
    this.frame = requestAnimationFrame(step);
  }

  settle() {
    [this.start, this.end] = this.goal;
    this.draw();
  }

  /* -- Drawing: everything anew; only what can be seen -- */

  draw() {
    const focused = this.plot.contains(document.activeElement) ? document.activeElement.dataset.key : undefined;
    this.plot.replaceChildren();
    this.y = 0;
    this.overview();
    this.pinTop = this.y;
    this.y += 24;
    this.regions();
    this.axis();
    for (const kind of Object.keys(LANES)) this.strips(kind);
    this.extents();
    this.disk.chains.forEach((chain, i) => this.chain(chain, i));
    this.pins();
    this.plot.setAttribute('height', this.y);
    this.plot.setAttribute('viewBox', `0 0 ${this.plot.clientWidth || 800} ${this.y}`);
    this.plot.dataset.view = `${Math.round(this.start)}-${Math.round(this.end)}`;
    const all = this.start <= 0 && this.end >= this.disk.size;
    this.out.disabled = this.whole.disabled = all;
    this.range.textContent = all ? '' : `${number(Math.floor(this.start))} – ${number(Math.ceil(this.end))}, ${bytes(Math.round(this.end - this.start))}`;
    if (focused !== undefined) this.plot.querySelector(`[data-key="${focused}"]`)?.focus({preventScroll: true});
  }

  // Left edge and width of what can be seen of a range; null when nothing can.
  seen(offset, length, least = 1) {
    if (offset >= this.end || offset + length <= this.start) return null;
    const from = this.x(Math.max(offset, this.start));
    const to = this.x(Math.min(offset + length, this.end));
    return [from, Math.max(to - from, least)];
  }

  name(text, y) { make(this.plot, 'text', {class: 'muted', x: LEFT - 10, y, 'text-anchor': 'end'}, text); }

  lane(name, height) {
    this.name(name, this.y + 13);
    make(this.plot, 'rect', {class: 'lane', x: LEFT, y: this.y, width: this.width, height, rx: 3});
  }

  overview() {
    const place = (offset) => LEFT + offset / this.disk.size * this.width;
    for (const region of this.disk.regions) {
      make(this.plot, 'rect', {class: `k-${region.kind}`, x: place(region.offset), y: 4, height: 8,
        width: Math.max(place(region.offset + region.length) - place(region.offset), 0.8)});
    }
    if (this.end - this.start < this.disk.size) {
      make(this.plot, 'rect', {class: 'window', x: place(this.start) - 1, y: 2, height: 12, rx: 3,
        width: Math.max(place(this.end) - place(this.start), 2) + 2});
    }
    this.name('whole disk', 13);
    this.y = 22;
  }

  regions() {
    this.name('regions', this.y + 22);
    for (const region of this.disk.regions) {
      const place = this.seen(region.offset, region.length);
      if (!place) continue;
      const [x, width] = place;
      const text = `${region.name}, ${bytes(region.length)} from ${number(region.offset)}`;
      make(this.plot, 'rect', {class: `region k-${region.kind}`, x, y: this.y, width, height: 34, rx: Math.min(3, width / 3),
        role: 'img', 'aria-label': text});
      if (width > 6.6 * region.name.length + 8) {
        make(this.plot, 'text', {class: DEEP.has(region.kind) ? 'label deep' : 'label', x: x + width / 2, y: this.y + 22,
          'text-anchor': 'middle', 'aria-hidden': 'true'}, region.name);
      }
    }
    this.y += 34;
  }

  axis() {
    const least = (this.end - this.start) / this.width * 110;
    let step = 512;
    while (step < least) step *= 2;
    const power = clamp(Math.floor(Math.log2(step) / 10), 0, 5);
    const unit = ['B', 'KiB', 'MiB', 'GiB', 'TiB', 'PiB'][power];
    for (let at = Math.ceil(this.start / step) * step; at <= this.end; at += step) {
      const x = this.x(at);
      make(this.plot, 'line', {class: 'tick', x1: x, x2: x, y1: this.y, y2: this.y + 5});
      const anchor = x > LEFT + this.width - 40 ? 'end' : x < LEFT + 20 ? 'start' : 'middle';
      make(this.plot, 'text', {class: 'muted', x, y: this.y + 17, 'text-anchor': anchor},
        `${number(at / 1024 ** power)} ${unit}`);
    }
    this.y += 26;
  }

  strips(kind) {
    const strips = this.disk.strips.filter((strip) => strip.kind === kind && strip.cells.length);
    if (!strips.length) return;
    this.lane(LANES[kind], 18);
    for (const strip of strips) {
      const top = strip.scale > 1 ? `, full from ${strip.scale.toFixed(1)}` : '';
      const group = make(this.plot, 'g', {role: 'img', 'aria-label': strip.name + top});
      const first = clamp(Math.floor((this.start - strip.offset) / strip.cellSize), 0, strip.cells.length);
      for (let i = first; i < strip.cells.length; ++i) {
        const offset = strip.offset + i * strip.cellSize;
        if (offset >= this.end) break;
        if (!strip.cells[i]) continue;
        const place = this.seen(offset, Math.min(strip.cellSize, strip.offset + strip.length - offset), 0.3);
        if (!place) continue;
        const owner = strip.owners.length ? strip.owners[i] : -1;
        make(group, 'rect', {class: owner < 0 ? `s-${kind}` : `c${owner % COLOURS}`, x: place[0], y: this.y, height: 18,
          width: place[1] + 0.3, opacity: (0.15 + 0.85 * Math.min(strip.cells[i] / strip.scale, 1)).toFixed(2)});
      }
    }
    this.y += 25;
  }

  extents() {
    if (!this.disk.extents.length) return;
    this.lane('components', 18);
    let last = null;  // runs within a pixel of one component are one
    for (const extent of this.disk.extents) {
      const place = this.seen(extent.offset, extent.length, 0.8);
      if (!place) continue;
      const [x, width] = place;
      if (last && last.component === extent.component && x + width <= last.end) continue;
      const other = state.component >= 0 && state.component !== extent.component;
      make(this.plot, 'rect', {class: `c${extent.component % COLOURS}${other ? ' dim' : ''}`, x, y: this.y, width, height: 18});
      last = {component: extent.component, end: x + width};
    }
    this.y += 25;
  }

  chain(chain, number_) {
    if (!chain.segments.length) return;
    const height = 96;
    const top = this.y + 6;
    this.lane(`${chain.log}, oldest`, height + 12);
    this.name('newest', top + height);
    const id = `age-${this.index}-${number_}`;
    const gradient = make(this.plot, 'linearGradient', {id, gradientUnits: 'userSpaceOnUse', x1: 0, x2: 0, y1: top, y2: top + height});
    make(gradient, 'stop', {offset: 0, style: 'stop-color: var(--old)'});
    make(gradient, 'stop', {offset: 1, style: 'stop-color: var(--new)'});
    const y = (index) => top + height * index / chain.blocks;
    let runs = '';
    let jumps = '';
    chain.segments.forEach((segment, i) => {
      const end = segment.offset + segment.blocks * BLOCK;
      const toX = Math.max(this.x(end), this.x(segment.offset) + 0.5);
      const toY = y(segment.index + segment.blocks);
      runs += clip(this.x(segment.offset), y(segment.index), toX, toY, LEFT, LEFT + this.width) ?? '';
      const next = chain.segments[i + 1];
      if (next) jumps += clip(toX, toY, this.x(next.offset), y(next.index), LEFT, LEFT + this.width) ?? '';
    });
    const label = `${chain.log}: ${plural(chain.blocks, 'block')}, ${plural(chain.entries, 'entry', 'entries')}` +
      `${chain.firstLsn === null ? '' : `, LSN ${number(chain.firstLsn)} to ${number(chain.lastLsn)}`}; ${chain.end}`;
    const group = make(this.plot, 'g', {role: 'img', 'aria-label': label});
    make(group, 'path', {class: 'jump', d: jumps});
    make(group, 'path', {class: 'run', d: runs, stroke: `url(#${id})`});
    this.note(label, top + 12);
    this.y += height + 19;
  }

  // A sentence at the plot's right edge, broken behind its commas where it is wider than the plot.
  note(sentence, y) {
    const line = () => make(this.plot, 'text', {class: 'muted', x: LEFT + this.width - 8, y, 'text-anchor': 'end'});
    let text = line();
    for (const piece of sentence.split(/(?<=[,;]) /)) {
      const before = text.textContent;
      text.textContent = before ? `${before} ${piece}` : piece;
      if (!before || text.getComputedTextLength() <= this.width - 16) continue;
      text.textContent = before;
      y += 15;
      text = line();
      text.textContent = piece;
    }
  }

  // Pins nearer than their own width are one with a count.
  pins() {
    const pins = [];
    model.findings.forEach((finding, i) => {
      if (finding.disk !== this.index || finding.offset === null || !state.shown.has(finding.severity)) return;
      const offset = clamp(finding.offset, 0, this.disk.size);
      if (offset < this.start || offset > this.end) return;
      pins.push({x: this.x(offset), offset, list: [i]});
    });
    pins.sort((a, b) => a.x - b.x);
    const groups = [];
    for (const pin of pins) {
      const last = groups[groups.length - 1];
      if (last && pin.x - last.x < 16) last.list.push(...pin.list);
      else groups.push({...pin});
    }
    for (const group of groups) this.pin(group);
  }

  pin({x, list}) {
    list.sort((a, b) => a - b);  // findings come damage first
    const worst = model.findings[list[0]];
    const selected = list.includes(state.selected);
    const label = list.length === 1 ? findingText(worst)
      : `${list.length} findings, ${findingText(selected ? model.findings[state.selected] : worst)}`;
    const pin = make(this.plot, 'g', {class: `pin pin-${worst.severity}${selected ? ' selected' : ''}`, tabindex: 0,
      role: 'button', 'aria-label': label, 'data-key': selected ? state.selected : list[0], 'data-findings': list.join(' '),
      'aria-pressed': selected});
    make(pin, 'line', {x1: x, x2: x, y1: this.pinTop + 22, y2: this.y - 4});
    make(pin, 'path', {class: `f-${worst.severity}`, d: SHAPES[worst.severity], transform: `translate(${x} ${this.pinTop + 22})`});
    if (list.length > 1) make(pin, 'text', {x, y: this.pinTop + 14, 'aria-hidden': 'true'}, list.length > 99 ? '…' : list.length);
    const choose = () => {
      const next = list[(list.indexOf(state.selected) + 1) % list.length];  // one after the other
      select(next, {jump: false});
    };
    pin.addEventListener('click', choose);
    pin.addEventListener('keydown', (event) => {
      if (event.key !== 'Enter' && event.key !== ' ') return;
      event.preventDefault();
      event.stopPropagation();
      choose();
    });
  }

  /* -- What lies under the pointer -- */

  explain(event) {
    const pin = event.target.closest('.pin');
    const lines = pin ? pin.dataset.findings.split(' ').slice(0, 6).map((i) => findingText(model.findings[i])) : this.lines(Math.floor(this.offsetAt(event)));
    tip.replaceChildren();
    make(tip, 'b', {}, lines[0]);
    for (const line of lines.slice(1)) make(tip, 'div', {}, line);
    tip.hidden = false;
    const box = tip.getBoundingClientRect();
    tip.style.left = `${clamp(event.clientX + 14, 4, innerWidth - box.width - 8)}px`;
    tip.style.top = `${event.clientY + 18 + box.height > innerHeight ? event.clientY - box.height - 12 : event.clientY + 18}px`;
  }

  lines(offset) {
    const within = (part, length = part.length) => offset >= part.offset && offset < part.offset + length;
    const lines = [`${number(offset)} (0x${offset.toString(16)})`];
    const region = this.disk.regions.find((part) => within(part));
    if (region) lines.push(`${region.name}, byte ${number(offset - region.offset)} of ${bytes(region.length)}`);
    for (const strip of this.disk.strips) {
      if (!within(strip)) continue;
      const i = Math.floor((offset - strip.offset) / strip.cellSize);
      const value = strip.cells[i];
      if (value === null || value === undefined) continue;
      const owner = strip.owners.length && strip.owners[i] >= 0 && strip.kind === 'held' ? `, most of disk ${strip.owners[i]}` : '';
      lines.push(`${strip.name}: ${strip.kind === 'density' ? value.toFixed(2) : `${Math.round(value * 100)} %`}${owner}`);
    }
    const extent = this.disk.extents.find((part) => within(part));
    if (extent) lines.push(`component ${model.components[extent.component].uuid}`);
    for (const chain of this.disk.chains) {
      const segment = chain.segments.find((part) => within(part, part.blocks * BLOCK));
      if (!segment) continue;
      const block = segment.index + Math.floor((offset - segment.offset) / BLOCK);
      lines.push(`${chain.log} block ${number(block + 1)} of ${number(chain.blocks)}, oldest first`);
    }
    return lines;
  }
}

/* ---- Tables ---- */

const views = [];

function select(index, {jump = true, from = null} = {}) {
  state.selected = index;
  state.back = from ?? state.back;
  const finding = model.findings[index];
  for (const row of document.querySelectorAll('#findings tbody tr')) {
    if (Number(row.dataset.finding) === index) row.setAttribute('aria-current', 'true');
    else row.removeAttribute('aria-current');
  }
  const view = views[finding.disk];
  if (!view) return;
  if (jump) {
    const span = Math.min(Math.max(256 * 1024, view.disk.size / 64), view.disk.size);
    const at = clamp(finding.offset ?? 0, 0, view.disk.size);
    if (finding.offset === null) view.show(0, view.disk.size, false);
    else view.show(at - span / 2, at + span / 2, false);
    document.getElementById(`disk-${finding.disk}`).scrollIntoView({block: 'center', behavior: calm.matches ? 'auto' : 'smooth'});
  } else {
    document.querySelector(`tr[data-finding="${index}"]`)?.scrollIntoView({block: 'nearest'});
  }
  views.forEach((each) => each.draw());
  const pin = view.plot.querySelector('.pin.selected');
  (pin ?? view.plot).focus({preventScroll: true});
  say(findingText(finding));
}

function fillFindings() {
  const body = document.querySelector('#findings tbody');
  body.replaceChildren();
  model.findings.forEach((finding, i) => {
    if (!state.shown.has(finding.severity)) return;
    const row = make(body, 'tr', {'data-finding': i});
    if (i === state.selected) row.setAttribute('aria-current', 'true');
    const severity = make(row, 'td', {class: `severity pin-${finding.severity}`});
    shape(severity, finding.severity);
    severity.append(finding.severity);
    const cell = make(row, 'td');
    if (finding.disk === null) {
      cell.append(finding.code);
    } else {
      const button = make(cell, 'button', {type: 'button', 'aria-label': `Show ${finding.code} on ${model.disks[finding.disk].title}`}, finding.code);
      button.addEventListener('click', () => select(i, {from: i}));
    }
    make(row, 'td', {}, finding.disk === null ? 'group' : model.disks[finding.disk].title);
    make(row, 'td', {class: 'number'}, finding.offset === null ? '–' : number(finding.offset));
    make(row, 'td', {}, finding.region);
    const expected = finding.expected || finding.found ? ` (expected ${finding.expected}, found ${finding.found})` : '';
    make(row, 'td', {}, finding.text + expected);
  });
  if (!body.children.length) {
    make(make(body, 'tr'), 'td', {colspan: 6}, model.findings.length ? 'None of the severities chosen.' : 'None.');
  }
}

function fillFilters() {
  const group = document.querySelector('.filters');
  for (const severity of SEVERITIES) {
    const label = make(group, 'label');
    const box = make(label, 'input', {type: 'checkbox', checked: ''});
    const name = make(label, 'span', {class: `severity pin-${severity}`});
    shape(name, severity);
    name.append(`${severity} ${number(model.counts[severity])}`);
    box.addEventListener('change', () => {
      if (box.checked) state.shown.add(severity);
      else state.shown.delete(severity);
      fillFindings();
      views.forEach((view) => view.draw());
    });
  }
}

function fillComponents() {
  const body = document.querySelector('#components tbody');
  document.getElementById('components').hidden = !model.components.length;
  model.components.forEach((component, i) => {
    const row = make(body, 'tr');
    const button = make(make(row, 'td'), 'button', {type: 'button', class: 'uuid', 'aria-pressed': 'false'});
    swatch(button, `c${i % COLOURS}`);
    button.append(` ${component.uuid}`);
    button.addEventListener('click', () => {
      state.component = state.component === i ? -1 : i;
      for (const other of body.querySelectorAll('button')) other.setAttribute('aria-pressed', String(other === button && state.component === i));
      views.forEach((view) => view.draw());
      const extents = model.disks[component.disk].extents.filter((extent) => extent.component === i);
      if (state.component < 0 || !extents.length) return;
      const last = extents[extents.length - 1];
      views[component.disk].showRange(extents[0].offset, last.offset + last.length - extents[0].offset);
      document.getElementById(`disk-${component.disk}`).scrollIntoView({block: 'center'});
    });
    make(row, 'td', {}, model.disks[component.disk].title);
    make(row, 'td', {class: 'number'}, bytes(component.allocated));
    make(row, 'td', {class: 'number'}, number(component.extents));
    make(row, 'td', {}, component.whole ? 'whole' : 'broken');
  });
}

function fillHead() {
  const verdict = document.getElementById('verdict');
  verdict.textContent = model.verdict;
  verdict.className = model.verdict;
  document.title = `Map of a disk group: ${model.verdict}`;
  const total = model.disks.reduce((sum, disk) => sum + disk.size, 0);
  document.getElementById('summary').textContent = `${plural(model.disks.length, 'disk')}, ${bytes(total)}; ` +
    `${number(model.counts.damage)} damage, ${plural(model.counts.warning, 'warning')}, ${plural(model.counts.info, 'note')}` +
    (model.complete ? '' : '; not everything could be checked');
  const notes = document.getElementById('notes');
  const left = Object.entries(model.findingsLeftOut).map(([code, count]) => `${number(count)} more findings of ${code} are not listed`);
  if (model.componentsLeftOut) left.push(`${plural(model.componentsLeftOut, 'more component')} not listed`);
  for (const note of [...left, ...model.notes]) make(notes, 'li', {}, note);
}

document.addEventListener('keydown', (event) => {
  if (event.key !== 'Escape') return;
  tip.hidden = true;
  if (state.back === null) return;
  const button = document.querySelector(`tr[data-finding="${state.back}"] button`);
  state.back = null;
  button?.focus();
});

fillHead();
fillFilters();
fillFindings();
fillComponents();
model.disks.forEach((disk, i) => views.push(new DiskView(document.getElementById('disks'), i)));
