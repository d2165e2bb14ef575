// What the identity provider remembers while it runs: in effect the jti of each assertion until the assertion expires.
// The store that oidc-provider brings along drops the oldest when it is full; here no jti is forgotten too early.

/** An oidc-provider adapter: one instance a kind of record. The caller judges whether a record has expired. */
export class MemoryStore {
  #records = new Map();

  async find(id) {
    return this.#records.get(id)?.record;
  }

  async upsert(id, record, lifetimeSeconds) {
    this.#dropExpired();
    this.#records.set(id, { record, forgetAt: Date.now() + lifetimeSeconds * 1000 });
  }

  async destroy(id) {
    this.#records.delete(id);
  }

  /** Lifetimes hardly differ, so the oldest come first: a record that is still alive ends the sweep. */
  #dropExpired() {
    const now = Date.now();
    for (const [id, { forgetAt }] of this.#records) {
      if (forgetAt > now) {
        return;
      }
      this.#records.delete(id);
    }
  }
}
