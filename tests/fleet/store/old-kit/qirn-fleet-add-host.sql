-- Adds a host to the store: its own login role, which reads the rows of its
-- sender only. As the database superuser, in database qirn_fleet:
--
--   sudo -u postgres psql -v ON_ERROR_STOP=1 -d qirn_fleet \
--       -v host=web-01 -v sender=192.0.2.10 -f qirn-fleet-add-host.sql
--
-- `sender` is what the collector authenticated: the forwarder's address
-- (plain RELP) or the name in its certificate (RELP over TLS). Then give the
-- role its credential (README.md: a password or a client certificate).
\set ON_ERROR_STOP on
SELECT 'qirn_host_' || :'host' AS role \gset
SELECT format('CREATE ROLE %I LOGIN IN ROLE qirn_hosts', :'role')
WHERE NOT EXISTS (SELECT FROM pg_roles WHERE rolname = :'role') \gexec
INSERT INTO qirn_fleet.hosts (sender, role) VALUES (:'sender', :'role')
ON CONFLICT (sender) DO UPDATE SET role = excluded.role;
