'use strict';
'require view';
'require rpc';
'require poll';
'require ui';
'require tarn-neighbors as neighborView';

/*
 * Status → Neighbor APs: tarn-info's table through the rpcd plugin "luci.tarn", drawn by the
 * module the standalone page shares, with buttons that pin a row as a static neighbor or
 * unpin it through the daemon's own bus object "tarn".
 */

const callGetNeighbors = rpc.declare({
	object: 'luci.tarn',
	method: 'getNeighbors'
});

const callAddStatic = rpc.declare({
	object: 'tarn',
	method: 'add_static_neighbor',
	params: ['mac', 'ip', 'ip6']
});

const callDelStatic = rpc.declare({
	object: 'tarn',
	method: 'del_static_neighbor',
	params: ['mac']
});

return view.extend({
	handleSaveApply: null,
	handleSave: null,
	handleReset: null,

	load() {
		return this.readTable();
	},

	/* A failed call shows as the daemon's notice, never as an error page. */
	readTable() {
		return callGetNeighbors().catch(err => ({ error: String(err && err.message || err) }));
	},

	/* "fail" (a full list of 8, a MAC that is not pinned) and transport errors alike end in a
	 * notice; the table is read again either way. */
	runEdit(what, call) {
		return call.then(reply => {
			if (!reply || reply.result !== 'success')
				ui.addNotification(null, E('p', {}, `${what} failed: the daemon answered ` +
					`"${reply && reply.result}". The static list holds at most 8 neighbors.`));
		}, err => {
			ui.addNotification(null, E('p', {}, `${what} failed: ${err && err.message || err}`));
		}).then(() => this.refresh());
	},

	handlePin(neighbor) {
		const args = neighborView.pinArguments(neighbor);
		return this.runEdit(`Pinning ${neighbor.mac}`,
			callAddStatic(args.mac, args.ip, args.ip6));
	},

	handleUnpin(neighbor) {
		return this.runEdit(`Unpinning ${neighbor.mac}`, callDelStatic(neighbor.mac));
	},

	rowActions(neighbor) {
		const buttons = [];
		if (!neighbor.static && neighborView.pinArguments(neighbor) !== null)
			buttons.push(E('button', {
				'class': 'cbi-button cbi-button-apply tarn-pin',
				'click': ui.createHandlerFn(this, 'handlePin', neighbor)
			}, 'Pin as static'));
		if (neighbor.static)
			buttons.push(E('button', {
				'class': 'cbi-button cbi-button-remove tarn-unpin',
				'click': ui.createHandlerFn(this, 'handleUnpin', neighbor)
			}, 'Unpin'));
		return buttons;
	},

	draw(data) {
		const drawn = neighborView.render(data, { actions: n => this.rowActions(n) });
		this.container.replaceChildren(drawn);
	},

	refresh() {
		return this.readTable().then(data => this.draw(data));
	},

	render(data) {
		const seconds = neighborView.pollSeconds(L.env.pollinterval);
		this.container = E('div', { 'id': 'tarn-neighbors', 'data-poll-seconds': seconds });
		this.draw(data);
		poll.add(() => this.refresh(), seconds);
		return E('div', {}, [
			E('h2', {}, 'Neighbor access points'),
			E('div', { 'class': 'cbi-map-descr' }, 'Other APs this AP hears on the air or ' +
				'keeps as static neighbors, as the tarn daemon knows them.'),
			this.container
		]);
	}
});
