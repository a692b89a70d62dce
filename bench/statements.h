// Everyday statements: what applications send all day, and what people and reports ask for now and
// then; some with comments, most with constants. Every peer reads all of them.

#ifndef BENCH_STATEMENTS_H
#define BENCH_STATEMENTS_H

inline constexpr const char *kStatements[] = {
    "SELECT balance FROM accounts WHERE account_id = 10023145",

    "UPDATE accounts SET balance = balance - 250.00, updated_at = '2024-03-18 09:12:44' WHERE "
    "account_id = 10023145",

    "INSERT INTO history (teller_id, branch_id, account_id, delta, mtime, filler) VALUES (71, 8, "
    "10023145, -250.00, '2024-03-18 09:12:44', 'withdrawal')",

    "SELECT c.first_name, c.last_name, c.email FROM customers c WHERE c.customer_id = 4711",

    "/* cart:checkout */ SELECT p.product_id, p.name, p.price, i.quantity FROM products p JOIN "
    "inventory i ON i.product_id = p.product_id WHERE p.product_id IN (1184, 2291, 17, 90412) AND "
    "i.warehouse_id = 3",

    "INSERT INTO orders (order_id, customer_id, status, total, currency, note) VALUES (982231, "
    "4711, 'NEW', 129.90, 'EUR', 'don''t ring the bell')",

    "INSERT INTO order_lines (order_id, line_no, product_id, quantity, price) VALUES (982231, 1, "
    "1184, 2, 19.95), (982231, 2, 2291, 1, 74.50), (982231, 3, 17, 1, 15.50)",

    "DELETE FROM sessions WHERE last_seen < '2024-03-17 00:00:00' AND user_agent LIKE "
    "'%HeadlessChrome%'",

    "SELECT COUNT(*) FROM messages WHERE recipient_id = 88123 AND is_read = 0",

    "SELECT m.message_id, m.subject, m.sent_at, u.display_name\n"
    "  FROM messages m\n"
    "  JOIN users u ON u.user_id = m.sender_id\n"
    " WHERE m.recipient_id = 88123\n"
    "   AND m.folder = 'inbox'\n"
    " ORDER BY m.sent_at DESC\n"
    " LIMIT 50 OFFSET 100",

    "UPDATE users SET login_count = login_count + 1, last_login = '2024-03-18 09:15:02', "
    "last_address = '192.0.2.17' WHERE user_id = 88123",

    "SELECT t.ticket_id, t.title, t.priority FROM tickets t LEFT JOIN assignments a ON "
    "a.ticket_id = t.ticket_id WHERE a.agent_id IS NULL AND t.state = 'open' AND t.queue_id = 12 "
    "ORDER BY t.priority DESC, t.created_at",

    "-- nightly: revenue by region and month\n"
    "SELECT r.region_name,\n"
    "       EXTRACT(YEAR FROM o.order_date) AS order_year,\n"
    "       EXTRACT(MONTH FROM o.order_date) AS order_month,\n"
    "       SUM(l.quantity * l.price * (1 - l.discount)) AS revenue,\n"
    "       COUNT(DISTINCT o.customer_id) AS customers\n"
    "  FROM orders o\n"
    "  JOIN order_lines l ON l.order_id = o.order_id\n"
    "  JOIN customers c ON c.customer_id = o.customer_id\n"
    "  JOIN nations n ON n.nation_id = c.nation_id\n"
    "  JOIN regions r ON r.region_id = n.region_id\n"
    " WHERE o.order_date >= '2023-01-01'\n"
    "   AND o.order_date < '2024-01-01'\n"
    "   AND o.status <> 'CANCELLED'   -- returned ones count\n"
    " GROUP BY r.region_name, EXTRACT(YEAR FROM o.order_date), EXTRACT(MONTH FROM o.order_date)\n"
    " HAVING SUM(l.quantity * l.price) > 10000\n"
    " ORDER BY r.region_name, order_year, order_month",

    "SELECT l_returnflag, l_linestatus, SUM(l_quantity) AS sum_qty, SUM(l_extendedprice) AS "
    "sum_base_price, SUM(l_extendedprice * (1 - l_discount)) AS sum_disc_price, "
    "SUM(l_extendedprice * (1 - l_discount) * (1 + l_tax)) AS sum_charge, AVG(l_quantity) AS "
    "avg_qty, AVG(l_extendedprice) AS avg_price, AVG(l_discount) AS avg_disc, COUNT(*) AS "
    "count_order FROM lineitem WHERE l_shipdate <= '1998-09-02' GROUP BY l_returnflag, "
    "l_linestatus ORDER BY l_returnflag, l_linestatus",

    "WITH recent AS (\n"
    "    SELECT customer_id, MAX(order_date) AS last_order, COUNT(*) AS orders, SUM(total) AS "
    "spent\n"
    "      FROM orders\n"
    "     WHERE order_date > '2023-09-18'\n"
    "     GROUP BY customer_id\n"
    "),\n"
    "ranked AS (\n"
    "    SELECT customer_id, spent, orders,\n"
    "           NTILE(10) OVER (ORDER BY spent DESC) AS decile\n"
    "      FROM recent\n"
    ")\n"
    "SELECT k.decile, COUNT(*) AS customers, AVG(k.spent) AS average_spent,\n"
    "       CASE WHEN k.decile <= 2 THEN 'gold' WHEN k.decile <= 5 THEN 'silver' ELSE 'bronze' "
    "END AS tier\n"
    "  FROM ranked k\n"
    " GROUP BY k.decile\n"
    " ORDER BY k.decile",

    "SELECT supp_nation, cust_nation, l_year, SUM(volume) AS revenue FROM (SELECT n1.n_name AS "
    "supp_nation, n2.n_name AS cust_nation, EXTRACT(YEAR FROM l_shipdate) AS l_year, "
    "l_extendedprice * (1 - l_discount) AS volume FROM supplier, lineitem, orders, customer, "
    "nation n1, nation n2 WHERE s_suppkey = l_suppkey AND o_orderkey = l_orderkey AND c_custkey = "
    "o_custkey AND s_nationkey = n1.n_nationkey AND c_nationkey = n2.n_nationkey AND ((n1.n_name "
    "= 'FRANCE' AND n2.n_name = 'GERMANY') OR (n1.n_name = 'GERMANY' AND n2.n_name = 'FRANCE')) "
    "AND l_shipdate BETWEEN '1995-01-01' AND '1996-12-31') AS shipping GROUP BY supp_nation, "
    "cust_nation, l_year ORDER BY supp_nation, cust_nation, l_year",

    "/*\n"
    " * Stock that moves too slowly. Kept as one statement so that the plan can be pinned; see "
    "the\n"
    " * notes of the warehouse team before changing the thresholds.\n"
    " */\n"
    "SELECT w.\"Name\" AS warehouse, p.sku, p.name, i.quantity,\n"
    "       i.quantity * p.cost AS bound_capital,\n"
    "       COALESCE(s.sold, 0) AS sold\n"
    "  FROM inventory i\n"
    "  JOIN warehouses w ON w.warehouse_id = i.warehouse_id\n"
    "  JOIN products p ON p.product_id = i.product_id\n"
    "  LEFT JOIN (SELECT product_id, SUM(quantity) AS sold\n"
    "               FROM order_lines\n"
    "              WHERE shipped_at > '2023-12-18' /* a quarter */\n"
    "              GROUP BY product_id) s ON s.product_id = p.product_id\n"
    " WHERE i.quantity > 25\n"
    "   AND COALESCE(s.sold, 0) * 4 < i.quantity\n"
    "   AND p.category NOT IN ('spare part', 'gift card', 'service')\n"
    " ORDER BY bound_capital DESC\n"
    " LIMIT 200",

    "SELECT a.actor_id, a.first_name, a.last_name, COUNT(fa.film_id) AS films FROM actors a JOIN "
    "film_actors fa ON fa.actor_id = a.actor_id JOIN films f ON f.film_id = fa.film_id WHERE "
    "f.rating = 'PG-13' AND f.length > 90 AND f.release_year BETWEEN 2001 AND 2009 GROUP BY "
    "a.actor_id, a.first_name, a.last_name HAVING COUNT(fa.film_id) >= 5 ORDER BY films DESC",

    "UPDATE devices SET firmware = '4.18.2-rc1', temperature = 41.75, signal = -67, config = "
    "'{\"interval\": 30, \"unit\": \"C\", \"thresholds\": [10, 85]}' WHERE serial = "
    "'SN-00-17-88-01-02-FB' AND active = 1",

    "SELECT EXISTS (SELECT 1 FROM permissions WHERE role_id = 6 AND resource = 'invoice' AND "
    "action = 'approve')",
};

#endif
