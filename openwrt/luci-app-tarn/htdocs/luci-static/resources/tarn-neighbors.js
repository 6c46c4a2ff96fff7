'use strict';
'require baseclass';

/*
 * Draws tarn-info's neighbor table (JSON schema 1). One file for both deliveries: LuCI's loader
 * brings it in with 'require tarn-neighbors', and the standalone page under /www/tarn/ loads
 * the same text the same way (page.js), so both draw the same table.
 *
 * Names, versions, tenants and addresses come from other APs and may be hostile: they reach
 * the page only as text nodes or attribute values, never as markup.
 */

const MIN_POLL_SECONDS = 5;
const SCHEMA = 1;

const STATE_LABELS = {
	active: 'active',
	offline: 'offline',
	wireless_ageing: 'wireless ageing',
	static_active: 'static, answering',
	static_offline: 'static, not answering'
};

const UNANSWERED_HINT = 'Marked APs are heard on the air but never answered a probe: UDP port ' +
	'32766 is blocked between the two APs, or no tarn runs on them.';

const DAEMON_DOWN = 'The neighbor discovery daemon (tarn) is not answering on this AP, so ' +
	'there is no neighbor table to show. Start it with "/etc/init.d/tarn start"; the table ' +
	'comes back at the next refresh.';

function append(node, children) {
	for (const child of [].concat(children)) {
		if (child === null || child === undefined)
			continue;
		node.appendChild(child instanceof Node ? child : document.createTextNode(String(child)));
	}
	return node;
}

function el(tag, attributes, children) {
	const node = document.createElement(tag);
	for (const name in attributes || {})
		node.setAttribute(name, String(attributes[name]));
	return append(node, children === undefined ? [] : children);
}

function text(value) {
	return (typeof value === 'string' && value !== '') ? value : '—';
}

function radiosOf(neighbor) {
	return Array.isArray(neighbor.radios) ? neighbor.radios : [];
}

return baseclass.extend({
	minPollSeconds: MIN_POLL_SECONDS,

	/* The refresh period asked for, in whole seconds, never below the floor: every read of
	 * the table makes the daemon ask the driver for its neighbor cache. */
	pollSeconds(requested) {
		const seconds = Math.floor(Number(requested));
		return Number.isFinite(seconds) && seconds > MIN_POLL_SECONDS ? seconds : MIN_POLL_SECONDS;
	},

	/* A document this module can draw, or null (an error object, another schema, garbage). */
	neighborsOf(data) {
		if (data === null || typeof data !== 'object' || data.schema !== SCHEMA ||
		    !Array.isArray(data.neighbors))
			return null;
		return data.neighbors.filter(n => n !== null && typeof n === 'object');
	},

	stateLabel(neighbor) {
		const label = name => STATE_LABELS[name] || 'unknown';
		let shown = `${label(neighbor.state_name)} (${Number(neighbor.state)})`;
		if (neighbor.learned && neighbor.static && neighbor.static_state_name !== undefined)
			shown += `; static: ${label(neighbor.static_state_name)} (${Number(neighbor.static_state)})`;
		return shown;
	},

	sourceLabel(neighbor) {
		if (neighbor.learned && neighbor.static)
			return 'learned, static';
		return neighbor.static ? 'static' : 'learned';
	},

	/* [channel, neighbors heard on it] by channel; a neighbor counts once per channel however
	 * many of its radios use it, and channel 0 (not reported) is left out. */
	channelCounts(neighbors) {
		const counts = new Map();
		for (const neighbor of neighbors) {
			const channels = new Set(radiosOf(neighbor).map(r => Number(r.channel))
				.filter(c => Number.isInteger(c) && c > 0));
			for (const channel of channels)
				counts.set(channel, (counts.get(channel) || 0) + 1);
		}
		return [...counts.entries()].sort((a, b) => a[0] - b[0]);
	},

	/* Arguments of "add_static_neighbor" that pin this row: only the addresses it has (an
	 * empty "ip" would be stored as 255.255.255.255); null when it has none, since a static
	 * neighbor without an address is never probed. */
	pinArguments(neighbor) {
		const args = { mac: neighbor.mac };
		if (typeof neighbor.ip === 'string' && neighbor.ip !== '')
			args.ip = neighbor.ip;
		if (typeof neighbor.ip6 === 'string' && neighbor.ip6 !== '')
			args.ip6 = neighbor.ip6;
		return (args.ip || args.ip6) ? args : null;
	},

	renderNotice(detail) {
		return el('div', { 'class': 'tarn-notice', role: 'alert' }, [
			el('p', {}, DAEMON_DOWN),
			detail ? el('p', { 'class': 'tarn-notice-detail' }, String(detail)) : null
		]);
	},

	renderRadios(neighbor) {
		return radiosOf(neighbor).map(radio => el('div', {
			'class': 'tarn-radio',
			'data-index': Number(radio.index),
			'data-channel': Number(radio.channel),
			'data-rssi': Number(radio.rssi),
			'data-txpower': Number(radio.txpower)
		}, `radio ${Number(radio.index)}: channel ${Number(radio.channel)}, RSSI ` +
		   `${Number(radio.rssi)}, ${Number(radio.txpower)} dBm`));
	},

	renderRow(neighbor, actions) {
		const nameCell = el('td', { 'class': 'tarn-name' }, text(neighbor.name));
		if (neighbor.answered === false)
			append(nameCell, [' ', el('span', { 'class': 'tarn-unanswered-mark',
				title: UNANSWERED_HINT }, 'no answer')]);
		const cells = [
			nameCell,
			el('td', { 'class': 'tarn-mac' }, text(neighbor.mac)),
			el('td', { 'class': 'tarn-ip' }, text(neighbor.ip)),
			el('td', { 'class': 'tarn-ip6' }, text(neighbor.ip6)),
			el('td', { 'class': 'tarn-version' }, text(neighbor.version)),
			el('td', { 'class': 'tarn-state' }, this.stateLabel(neighbor)),
			el('td', { 'class': 'tarn-source' }, this.sourceLabel(neighbor)),
			el('td', { 'class': 'tarn-radios' }, this.renderRadios(neighbor))
		];
		if (actions)
			cells.push(el('td', { 'class': 'tarn-actions' }, actions(neighbor)));
		return el('tr', {
			'class': neighbor.answered === false ? 'tarn-neighbor tarn-unanswered' : 'tarn-neighbor',
			'data-mac': String(neighbor.mac)
		}, cells);
	},

	renderTable(neighbors, actions) {
		const headings = ['Name', 'MAC', 'IPv4', 'IPv6', 'Version', 'State', 'Source',
			'Radios (channel, RSSI, transmit power)'];
		if (actions)
			headings.push('');
		const body = neighbors.length > 0
			? neighbors.map(n => this.renderRow(n, actions))
			: [el('tr', { 'class': 'tarn-empty' },
				el('td', { colspan: headings.length }, 'No neighbor AP is known yet.'))];
		return el('table', { 'class': 'tarn-neighbors' }, [
			el('thead', {}, el('tr', {}, headings.map(h => el('th', {}, h)))),
			el('tbody', {}, body)
		]);
	},

	renderChannels(neighbors) {
		const rows = this.channelCounts(neighbors).map(([channel, count]) =>
			el('tr', { 'class': 'tarn-channel', 'data-channel': channel, 'data-count': count },
				[el('td', {}, String(channel)), el('td', {}, String(count))]));
		return el('table', { 'class': 'tarn-channels' }, [
			el('thead', {}, el('tr', {}, [el('th', {}, 'Channel'), el('th', {}, 'Neighbors')])),
			el('tbody', {}, rows)
		]);
	},

	/* The whole view for one answer of tarn-info: the table, the count per channel and the
	 * hint on unanswered rows; or the notice when the answer is not a neighbor table.
	 * `options.actions(neighbor)` adds a last cell of controls (LuCI's pin buttons). */
	render(data, options) {
		const neighbors = this.neighborsOf(data);
		if (neighbors === null)
			return this.renderNotice(data && typeof data === 'object' ? data.error : null);
		const actions = options && options.actions;
		const unanswered = neighbors.some(n => n.answered === false);
		return el('div', { 'class': 'tarn-view', 'data-count': neighbors.length }, [
			el('p', { 'class': 'tarn-summary' },
				`${neighbors.length} neighbor AP${neighbors.length === 1 ? '' : 's'}, read ` +
				new Date().toLocaleTimeString()),
			this.renderTable(neighbors, actions),
			unanswered ? el('p', { 'class': 'tarn-hint' }, UNANSWERED_HINT) : null,
			el('h3', {}, 'Neighbors per channel'),
			this.renderChannels(neighbors)
		]);
	}
});
