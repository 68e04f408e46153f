
// SPDX-License-Identifier: MIT
'use strict';
(() => {
  const RULES = ['patch', 'copy', 'delete'];
  const RULE_TEXT = { patch: 'changed, as a delta', copy: 'new, whole', delete: 'deleted' };
  const SMALLEST = 16;      // square pixels; what would be smaller is drawn as one
  const HEAD = 19;          // pixels of a folder's label
  const HELP = 'The larger a rectangle, the more of the patch it is. A click goes into a folder; by keyboard, '
    + 'arrow keys move, Enter goes in and Escape out.';
  const ROWS = 200;         // of the table at first, and more at a time
  const data = JSON.parse(document.getElementById('data').textContent);

  /* ---- Words ---- */

  const number = n => n.toLocaleString('en-US');
  const counted = (n, thing) => `${number(n)} ${thing}${n === 1 ? '' : 's'}`;

  function bytes(n) {
    if (n < 1024)
      return counted(n, 'byte');
    let unit = -1;
    do {
      n /= 1024;
      ++unit;
    } while (n >= 1024 && unit < 5);
    return `${n.toFixed(1)} ${['KiB', 'MiB', 'GiB', 'TiB', 'PiB', 'EiB'][unit]}`;
  }

  function percent(part, whole) {
    if (!whole)
      return '–';
    const share = 100 * part / whole;
    return part > 0 && share < 0.1 ? '< 0.1 %' : `${share.toFixed(1)} %`;
  }

  /** An element with attributes, properties and children. Names of files only ever become text. */
  function make(tag, properties, ...children) {
    const element = document.createElement(tag);
    for (const [name, value] of Object.entries(properties || {})) {
      if (name in element)
        element[name] = value;
      else
        element.setAttribute(name, value);
    }
    element.append(...children);
    return element;
  }

  const byId = id => document.getElementById(id);

  /* ---- Files and folders ---- */

  function newFolder(name, parent) {
    const path = parent ? (parent.parent ? parent.path : '') + '/' + name : '/';
    return { name, parent, path, folders: new Map(), items: [], isFolder: true, ...sumsOf([]) };
  }

  /** What counts for folders as for files; "whole" are the bytes of new files. */
  function sumsOf(items) {
    const sums = { count: 0, bytes: 0, size: 0, copied: 0, literal: 0, whole: 0 };
    for (const item of items)
      addTo(sums, item);
    return sums;
  }

  function addTo(sums, item) {
    for (const member of ['count', 'bytes', 'size', 'copied', 'literal', 'whole'])
      sums[member] += item[member];
  }

  const root = newFolder(data.name, null);
  const files = data.files.map(([rule, path, size, inPatch, copied, literal, commands, oldPath, known, kind]) => {
    const parts = path.split('/').slice(1);
    const name = parts.pop();
    let parent = root;
    for (const part of parts) {
      if (!parent.folders.has(part))
        parent.folders.set(part, newFolder(part, parent));
      parent = parent.folders.get(part);
    }
    const file = { name, parent, path, rule: RULES[rule], size, bytes: inPatch, copied, literal, commands,
      oldPath, known: known || 0, isMoved: kind === 0, isEstimated: kind === 2, count: 1, whole: RULES[rule] === 'copy' ? inPatch : 0, share: size ? literal / size : 0 };
    if (inPatch > 0)
      parent.items.push(file);
    for (let folder = parent; folder && file.rule !== 'delete'; folder = folder.parent)
      addTo(folder, file);
    return file;
  });

  (function sort(folder) {
    for (const inner of folder.folders.values()) {
      sort(inner);
      if (inner.bytes > 0)
        folder.items.push(inner);
    }
    folder.items.sort((a, b) => b.bytes - a.bytes || (a.name < b.name ? -1 : 1));
  })(root);

  const isInside = (file, folder) => !folder.parent || file.path.startsWith(folder.path + '/');
  const sum = (list, member) => list.reduce((total, item) => total + item[member], 0);

  /**
   * A name in an address. One that is no text, with half of a pair in it, which no address holds, has
   * "~" and four digits for that half, and "~~" for "~".
   */
  const encoded = name => encodeURIComponent(name.replace(/~|[\ud800-\udfff]/gu,
    odd => odd === '~' ? '~~' : '~' + odd.charCodeAt(0).toString(16)));
  const decoded = part => decodeURIComponent(part).replace(/~~|~(d[89a-f][0-9a-f]{2})/g,
    (all, half) => half ? String.fromCharCode(parseInt(half, 16)) : '~');

  /** The folder that an address such as #/data/levels names, or the nearest above it. */
  function folderOf(hash) {
    let folder = root;
    for (const part of hash.replace(/^#/, '').split('/').filter(part => part !== '')) {
      let name;
      try {
        name = decoded(part);
      } catch (error) {
        break;
      }
      if (!folder.folders.has(name))
        break;
      folder = folder.folders.get(name);
    }
    return folder;
  }

  const addressOf = folder => '#' + folder.path.split('/').map(encoded).join('/');
  let view = folderOf(location.hash);

  /* ---- The sums on top ---- */

  function leadOf(made, size, deleted) {
    if (files.length === 0)
      return 'This patch has no rules: it changes nothing.';
    if (made === 0)
      return `This patch deletes ${counted(deleted, 'file')} and brings none.`;
    return `A patch of ${bytes(root.bytes)} for ${counted(made, 'new or changed file')} of ${bytes(size)}`
      + (deleted ? `; ${counted(deleted, 'file')} ${deleted === 1 ? 'is' : 'are'} deleted.` : '.');
  }

  function drawSums() {
    const of = rule => files.filter(file => file.rule === rule);
    const [patched, copied, deleted] = RULES.map(of);
    const size = sum(files, 'size');
    document.title = `${data.name} – patch report`;
    byId('name').textContent = data.name;
    byId('lead').textContent = leadOf(patched.length + copied.length, size, deleted.length);

    const card = (kind, what, much, more) => make('div', { className: 'card ' + kind },
      make('div', { className: 'what' }, what), make('div', { className: 'much' }, much),
      make('div', { className: 'more' }, more));
    byId('cards').append(
      card('all', 'The whole patch', bytes(root.bytes), size ? `${percent(root.bytes, size)} of the new files` : 'no new files'),
      card('patch', 'Deltas of changed files', bytes(sum(patched, 'bytes')),
        `${counted(patched.length, 'file')} of ${bytes(sum(patched, 'size'))}`),
      card('copy', 'New files, whole', bytes(sum(copied, 'bytes')), counted(copied.length, 'file')),
      card('delete', 'Deleted', counted(deleted.length, 'file'), 'no longer in the build'));

    byId('sources').hidden = size === 0;
    byId('places').hidden = root.bytes === 0;
    byId('files').hidden = files.length === 0;
    for (const [kind, text, much] of [
      ['old', 'taken from the old files', sum(files, 'copied')],
      ['literal', 'new bytes in deltas', sum(patched, 'literal')],
      ['whole', 'new files', sum(copied, 'literal')]]) {
      if (much === 0)
        continue;
      const part = make('div', { className: kind });
      part.style.flexGrow = much;
      byId('bar').append(part);
      byId('bar-keys').append(make('li', {}, make('span', { className: 'swatch ' + kind }),
        make('span', {}, text + ' ', make('b', {}, bytes(much)), ` ${percent(much, size)}`)));
    }
    byId('kind').textContent = `Patch, looked at on ${data.date}`;
    byId('made').textContent = `Written on ${data.date} by ${data.program}. `
      + 'Sizes are those of the files in the patch folder.';
  }

  /* ---- The map ---- */

  const map = byId('map');
  const itemOf = new WeakMap(); // what an element of the map stands for
  let tiles = [];               // elements of files, and of small files drawn as one
  let tileOf = new Map();       // by file
  let current = null;           // the tile that the keyboard is at

  /**
   * Divides a box among items, the largest first, in proportion to their bytes and as squarely as it
   * goes: rows are laid along the shorter side, each as long as that makes its items more square.
   */
  function squarify(items, box, place) {
    let { x, y, w, h } = box;
    let left = sum(items, 'bytes');
    for (let start = 0; start < items.length;) {
      const side = Math.min(w, h);
      const scale = w * h / left;
      let row = 0;
      let end = start;
      for (let worst = Infinity; end < items.length; ++end) {
        const thickness = (row + items[end].bytes) * scale / side;
        const longest = items[start].bytes * scale / thickness;
        const shortest = items[end].bytes * scale / thickness;
        const ratio = Math.max(longest / thickness, thickness / shortest);
        if (ratio > worst)
          break;
        worst = ratio;
        row += items[end].bytes;
      }
      const thickness = end === items.length ? Math.max(w, h) : row * scale / side;
      for (let at = 0; start < end; ++start) {
        const length = side * items[start].bytes / row;
        place(items[start], w <= h ? { x: x + at, y, w: length, h: thickness }
          : { x, y: y + at, w: thickness, h: length });
        at += length;
        left -= items[start].bytes;
      }
      if (w <= h) {
        y += thickness;
        h -= thickness;
      } else {
        x += thickness;
        w -= thickness;
      }
    }
  }

  /** The items of a folder, those too small to be seen as one. */
  function visibleItems(folder, area) {
    const smallest = folder.bytes * SMALLEST / area;
    const cut = folder.items.findIndex(item => item.bytes < smallest);
    if (cut < 0 || cut === folder.items.length - 1)
      return folder.items;
    const small = { merged: true, parent: folder, ...sumsOf(folder.items.slice(cut)) };
    const items = folder.items.slice(0, cut);
    const at = items.findIndex(item => item.bytes < small.bytes);
    items.splice(at < 0 ? items.length : at, 0, small);
    return items;
  }

  /** What stands directly in a folder and is an item or holds it. */
  function topItem(item, folder) {
    while (item.parent !== folder)
      item = item.parent;
    return item;
  }

  function fillOf(item) {
    if (item.rule === 'copy' || item.whole * 2 > item.bytes)
      return 'copy-fill';
    const share = item.size ? item.literal / item.size : 0;
    return 'p' + Math.min(4, Math.floor(share * 5));
  }

  /** Edges fall on whole pixels, so that boxes that touch leave no gap and do not overlap. */
  function put(element, box) {
    const x = Math.round(box.x);
    const y = Math.round(box.y);
    const w = Math.round(box.x + box.w) - x;
    const h = Math.round(box.y + box.h) - y;
    Object.assign(element.style, { left: x + 'px', top: y + 'px', width: w + 'px', height: h + 'px' });
    return { x, y, w, h };
  }

  function drawTile(item, box, depth) {
    const tile = make('div', { className: 'tile ' + fillOf(item) });
    const { w, h } = put(tile, box);
    if (w === 0 || h === 0)
      return;
    tile.classList.toggle('merged', !!item.merged);
    tile.classList.toggle('tiny', w < 5 || h < 5);
    tile.classList.toggle('in', depth > 0);
    const isNamed = w > 44 && h > 18;
    tile.classList.toggle('named', isNamed);
    if (isNamed)
      tile.append(make('bdi', {}, item.merged ? counted(item.count, 'small file') : item.name));
    if (w > 62 && h > 34)
      tile.append(make('span', {}, bytes(item.bytes)));
    if (!item.merged) {
      tile.dataset.path = item.path;
      tileOf.set(item, tile);
    }
    itemOf.set(tile, item);
    tiles.push(tile);
    map.append(tile);
  }

  function drawFolder(folder, box, depth) {
    let label = folder.name;
    while (folder.items.length === 1 && folder.items[0].isFolder) {
      folder = folder.items[0];
      label += '/' + folder.name;
    }
    const element = make('div', { className: 'folder' });
    const drawn = put(element, box);
    element.dataset.folder = folder.path;
    itemOf.set(element, folder);
    map.append(element);

    const inner = { x: drawn.x, y: drawn.y, w: drawn.w - 1, h: drawn.h - 1 };
    const hasLabel = drawn.w > 34 && drawn.h > 44 && depth < 4;
    if (hasLabel) {
      element.append(make('div', { className: 'label' }, make('bdi', {}, label),
        ...(drawn.w > 130 ? [make('span', {}, bytes(folder.bytes))] : [])));
      inner.y += HEAD;
      inner.h -= HEAD;
    }
    const frame = depth < 2 && Math.min(drawn.w, drawn.h) > 40 ? 3 : 0;
    inner.x += frame;
    inner.w -= 2 * frame;
    inner.h -= frame;
    drawItems(folder, inner, depth + 1);
  }

  function drawItems(folder, box, depth) {
    if (box.w < 1 || box.h < 1)
      return;
    squarify(visibleItems(folder, box.w * box.h), box, (item, place) => {
      if (item.isFolder)
        drawFolder(item, place, depth);
      else
        drawTile(item, place, depth);
    });
  }

  function drawMap() {
    map.replaceChildren();
    tiles = [];
    tileOf = new Map();
    current = null;
    byId('facts').textContent = HELP;
    byId('facts').className = 'help';
    byId('tip').hidden = true;
    if (view.bytes > 0) {
      drawItems(view, { x: 0, y: 0, w: map.clientWidth, h: map.clientHeight }, 0);
    } else {
      map.append(make('div', { className: 'nothing' }, 'Nothing to see: no bytes, only files to delete.'));
    }
    dimTiles();
  }

  function drawCrumbs() {
    const parts = [];
    for (let folder = view; folder; folder = folder.parent) {
      const name = make('bdi', {}, folder.name);
      parts.unshift(make('span', { className: 'part' }, folder === view
        ? make('span', { 'aria-current': 'true' }, name)
        : make('a', { href: addressOf(folder) }, name)));
    }
    const share = view.parent ? ` · ${percent(view.bytes, root.bytes)} of the patch` : '';
    byId('crumbs').replaceChildren(...parts,
      make('span', {}, `\u00a0— ${bytes(view.bytes)} in ${counted(view.count, 'file')}${share}`));
  }

  function drawMapKeys() {
    const steps = make('span', { className: 'steps' });
    for (let step = 0; step < 5; ++step)
      steps.append(make('span', { className: `swatch p${step}` }));
    byId('map-keys').append(
      make('li', {}, steps, 'changed: from nearly all taken from the old file to nearly all sent again'),
      make('li', {}, make('span', { className: 'swatch copy-fill' }), 'new, whole'),
      make('li', {}, make('span', { className: 'swatch p2 merged' }), 'many small files'));
  }

  /* ---- What the pointer and the keyboard are at ---- */

  function factsOf(item) {
    const facts = [['In the patch', bytes(item.bytes)], ['Share of the patch', percent(item.bytes, root.bytes)]];
    if (item.isFolder || item.merged)
      return [['Files', number(item.count)], ...facts];
    facts.push(['New file', bytes(item.size)]);
    if (item.rule === 'patch') {
      facts.push(['New bytes', `${bytes(item.literal)}, ${percent(item.literal, item.size)}`],
        ['From the old file', `${bytes(item.copied)}, ${percent(item.copied, item.size)}`],
        ['Commands', number(item.commands)]);
    }
    return facts;
  }

  function titleOf(item) {
    if (item.merged)
      return `${counted(item.count, 'small file')} in ${item.parent.path}`;
    return item.isFolder ? item.path + '/' : `${item.path} (${RULE_TEXT[item.rule]})`;
  }

  function showTip(item, x, y) {
    const tip = byId('tip');
    const list = make('dl');
    for (const [what, value] of factsOf(item))
      list.append(make('dt', {}, what), make('dd', {}, value));
    tip.replaceChildren(make('div', { className: 'title' }, make('bdi', {}, titleOf(item))), list);
    if (item.rule === 'patch' && item.size) {
      const [literal, old] = [make('div', { className: 'literal' }), make('div', { className: 'old' })];
      literal.style.flexGrow = item.literal;
      old.style.flexGrow = item.copied;
      list.before(make('div', { className: 'bar' }, literal, old));
    }
    tip.hidden = false;
    const left = x + 16 + tip.offsetWidth > innerWidth ? x - 16 - tip.offsetWidth : x + 16;
    const top = y + 18 + tip.offsetHeight > innerHeight ? y - 12 - tip.offsetHeight : y + 18;
    Object.assign(tip.style, { left: Math.max(4, left) + 'px', top: Math.max(4, top) + 'px' });
  }

  function moveTo(tile) {
    if (current)
      current.classList.remove('at');
    current = tile;
    if (!tile)
      return;
    tile.classList.add('at');
    byId('facts').className = '';
    const item = itemOf.get(tile);
    byId('facts').replaceChildren(make('bdi', {}, titleOf(item)),
      ': ' + factsOf(item).map(([what, value]) => `${what.toLowerCase()} ${value}`).join(' · '));
  }

  /** The folder that a click goes into: the one of the view that holds the tile, or the label's. */
  function targetOf(item) {
    if (item.isFolder)
      return item;
    if (item.parent === view)
      return null;
    let folder = topItem(item, view);
    while (folder.items.length === 1 && folder.items[0].isFolder)
      folder = folder.items[0];
    return folder;
  }

  function goTo(folder) {
    if (folder && folder !== view)
      location.hash = addressOf(folder);
  }

  const elementAt = event => event.target.closest('.tile, .folder');

  map.addEventListener('pointermove', event => {
    const element = elementAt(event);
    if (element && event.pointerType !== 'touch')
      showTip(itemOf.get(element), event.clientX, event.clientY);
    else
      byId('tip').hidden = true;
  });
  map.addEventListener('pointerleave', () => {
    byId('tip').hidden = true;
  });

  let tapped = null; // a first tap tells, a second one goes into the folder
  map.addEventListener('click', event => {
    const element = elementAt(event);
    if (!element)
      return;
    const item = itemOf.get(element);
    const target = targetOf(item);
    const tellsFirst = event.pointerType === 'touch' && !item.isFolder && tapped !== element;
    tapped = element;
    if (target && !tellsFirst)
      goTo(target);
    else if (!item.isFolder)
      moveTo(element);
  });

  /** The nearest tile in a direction, those straight ahead first. */
  function neighbour(dx, dy) {
    const centre = tile => ({ x: tile.offsetLeft + tile.offsetWidth / 2, y: tile.offsetTop + tile.offsetHeight / 2 });
    const here = centre(current);
    let best = null;
    let least = Infinity;
    for (const tile of tiles) {
      const there = centre(tile);
      const ahead = (there.x - here.x) * dx + (there.y - here.y) * dy;
      const aside = Math.abs((there.x - here.x) * dy) + Math.abs((there.y - here.y) * dx);
      const distance = ahead + 2 * aside;
      if (ahead > 0.5 && distance < least) {
        least = distance;
        best = tile;
      }
    }
    return best;
  }

  const ARROWS = { ArrowLeft: [-1, 0], ArrowRight: [1, 0], ArrowUp: [0, -1], ArrowDown: [0, 1] };
  map.addEventListener('keydown', event => {
    if (event.altKey || event.ctrlKey || event.metaKey)
      return;
    if (event.key in ARROWS && tiles.length > 0)
      moveTo(current ? neighbour(...ARROWS[event.key]) || current : tiles[0]);
    else if (event.key === 'Enter' && current)
      goTo(targetOf(itemOf.get(current)));
    else if ((event.key === 'Escape' || event.key === 'Backspace') && view.parent)
      goTo(view.parent);
    else if (event.key === 'Home' && tiles.length > 0)
      moveTo(tiles[0]);
    else
      return;
    event.preventDefault();
  });

  /* ---- The table ---- */

  const COLUMNS = [
    { title: 'File', key: file => file.path, ascending: true },
    { title: 'Rule', key: file => RULES.indexOf(file.rule), ascending: true },
    { title: 'In the patch', key: file => file.bytes },
    { title: 'New file', key: file => file.size },
    { title: 'New bytes', key: file => file.literal },
    { title: 'From the old', key: file => file.copied },
    { title: 'Share new', key: file => file.share },
    { title: 'Commands', key: file => file.commands },
  ];
  const hasMoved = files.some(file => file.oldPath !== undefined);
  if (hasMoved)
    COLUMNS.push({ title: 'In the old build', key: file => file.known });
  const shownRules = new Set(RULES);
  let sortedBy = COLUMNS[2];
  let ascending = false;
  let rowCount = ROWS;

  const isWanted = file => shownRules.has(file.rule)
    && file.path.toLowerCase().includes(byId('filter').value.toLowerCase());

  function wantedFiles() {
    const list = files.filter(file => isInside(file, view) && isWanted(file));
    const direction = ascending ? 1 : -1;
    const { key } = sortedBy;
    return list.sort((a, b) => {
      const [left, right] = [key(a), key(b)];
      return left === right ? (a.path < b.path ? -1 : 1) : (left < right ? -direction : direction);
    });
  }

  /** Where the old build has a new file, or most of it. */
  function oldPlaceOf(file) {
    if (file.oldPath === undefined)
      return [];
    const share = file.isMoved ? 'all, as '
      : `${file.isEstimated ? `about ${(100 * file.known / file.size).toFixed(0)} %` : percent(file.known, file.size)}, most of it in `;
    return [share, make('bdi', {}, file.oldPath)];
  }

  function rowOf(file) {
    const gone = file.rule === 'delete';
    const cell = (...content) => make('td', {}, ...content);
    const folder = make('a', { href: addressOf(file.parent), tabIndex: -1 });
    for (const part of file.path.slice(0, -file.name.length).match(/[^/]*\//g))
      folder.append(part, make('wbr')); // lines break there
    const share = make('i');
    share.style.width = 100 * file.share + '%';
    const tag = make('span', { className: 'tag ' + (gone ? 'delete' : fillOf(file)) }, file.rule);
    const row = make('tr', {},
      cell(make('bdi', {}, folder, file.name)), cell(tag),
      cell(gone ? '' : bytes(file.bytes)), cell(gone ? '' : bytes(file.size)),
      cell(gone ? '' : bytes(file.literal)), cell(file.rule === 'patch' ? bytes(file.copied) : ''),
      gone || !file.size ? cell() : cell(make('span',
        { className: 'share' + (file.rule === 'copy' ? ' whole-file' : '') }, share), make('span', { className: 'percent' }, percent(file.literal, file.size))),
      cell(file.rule === 'patch' ? number(file.commands) : ''),
      ...(hasMoved ? [cell(...oldPlaceOf(file))] : []));
    const mark = on => () => tileOf.has(file) && tileOf.get(file).classList.toggle('mark', on);
    row.addEventListener('pointerenter', mark(true));
    row.addEventListener('pointerleave', mark(false));
    return row;
  }

  function drawTable() {
    const list = wantedFiles();
    const shown = list.slice(0, rowCount);
    byId('rows').replaceChildren(...shown.map(rowOf));
    for (const [index, head] of [...byId('heads').children].entries()) {
      if (COLUMNS[index] === sortedBy)
        head.setAttribute('aria-sort', ascending ? 'ascending' : 'descending');
      else
        head.removeAttribute('aria-sort');
    }
    const rest = list.length - shown.length;
    byId('table-title').textContent = view.parent ? `Files in ${view.path}` : 'Files';
    byId('count').textContent = `${counted(list.length, 'file')}, ${bytes(sum(list, 'bytes'))} in the patch`
      + (rest ? `; the first ${number(shown.length)} are shown` : '');
    byId('more').hidden = rest === 0;
    byId('more').textContent = `Show ${number(Math.min(rest, 5 * ROWS))} more`;
  }

  function dimTiles() {
    for (const [file, tile] of tileOf)
      tile.classList.toggle('dim', !isWanted(file));
  }

  function prepareTable() {
    for (const column of COLUMNS) {
      const button = make('button', { type: 'button' }, column.title);
      button.addEventListener('click', () => {
        ascending = sortedBy === column ? !ascending : !!column.ascending;
        sortedBy = column;
        drawTable();
      });
      byId('heads').append(make('th', { scope: 'col' }, button));
    }
    const filtered = () => {
      rowCount = ROWS;
      drawTable();
      dimTiles();
    };
    for (const rule of RULES) {
      const box = make('input', { type: 'checkbox', checked: true });
      box.addEventListener('change', () => {
        shownRules[box.checked ? 'add' : 'delete'](rule);
        filtered();
      });
      byId('rules').append(make('label', {}, box, rule));
    }
    byId('filter').addEventListener('input', filtered);
    byId('more').addEventListener('click', () => {
      rowCount += 5 * ROWS;
      drawTable();
    });
  }

  /* ---- All together ---- */

  function drawView() {
    drawCrumbs();
    drawMap();
    drawTable();
  }

  drawSums();
  drawMapKeys();
  prepareTable();
  drawView();
  addEventListener('hashchange', () => {
    view = folderOf(location.hash);
    rowCount = ROWS;
    drawView();
  });
  let drawnWidth = map.clientWidth;
  new ResizeObserver(() => {
    if (map.clientWidth !== drawnWidth) {
      drawnWidth = map.clientWidth;
      drawMap();
    }
  }).observe(map);
})();
